#include "endpointregistry/Endpoint.h"

#include "tests/endpointregistry/SharingTools.h"
#include "tests/support/ForkedProcess.h"
#include "tests/support/TestAccounts.h"

#include <cstdlib>
#include <gtest/gtest.h>
#include <memory>

using agent::spf::endpointregistry::Endpoint;
namespace accounts = tests::accounts;

namespace {

/// Goes after all statics of the library.
__attribute__((init_priority(101))) std::unique_ptr<Endpoint> untilTheEnd;

using EndpointSharingAtExit = tests::SharingTest;

} // namespace

TEST_F(EndpointSharingAtExit, EndsThoughTheStaticsOfTheLibraryAreGone) {
    EXPECT_EQ(tests::runInChild([] {
                  accounts::become(accounts::anna);
                  untilTheEnd =
                      std::make_unique<Endpoint>(Endpoint::DataPair("a", "b"), "tag", "key");
                  untilTheEnd->addTrustees({accounts::friends});
                  std::exit(EXIT_SUCCESS); // NOLINT(concurrency-mt-unsafe): of one thread
              }),
              0);
    tests::as(accounts::anna, [] { tests::expectNothingShared(accounts::friends); });
}
