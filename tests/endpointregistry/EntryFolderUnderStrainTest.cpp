#include "endpointregistry/detail/EntryFolder.h"

#include "tests/endpointregistry/EndpointTools.h"
#include "tests/endpointregistry/FewDescriptors.h"
#include "tests/support/ForkedProcess.h"
#include "tests/support/Sanitizers.h"

#include <gtest/gtest.h>
#include <stdexcept>

using agent::spf::endpointregistry::EntryFolder;
using EntryFolderUnderStrain = tests::RegistryTest;

TEST_F(EntryFolderUnderStrain, TakesNobodyForDeadOrLivingWhomItCannotAskAbout) {
    if (!tests::canDoWithoutDescriptors) {
        GTEST_SKIP() << tests::whyDescriptorsAreNeeded;
    }
    const tests::PlantedEntry entry("entry", "");
    EXPECT_EQ(tests::runInChild([&entry] {
                  const EntryFolder folder("");
                  EXPECT_EQ(folder.publisherOf(entry.name()), EntryFolder::Publisher::dead);
                  const auto hoard = tests::leaveDescriptors(0);
                  EXPECT_THROW(folder.publisherOf(entry.name()), std::runtime_error);
                  EXPECT_THROW(folder.clearIfStale(entry.name(), [] { return true; }),
                               std::runtime_error);
              }),
              0);
    EXPECT_TRUE(entry.hasFile());
}
