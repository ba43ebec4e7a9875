#include "endpointregistry/Endpoint.h"

#include "tests/endpointregistry/EndpointTools.h"
#include "tests/endpointregistry/LockedFileTools.h"
#include "tests/support/TracedProcess.h"

#include <filesystem>
#include <functional>
#include <gtest/gtest.h>
#include <memory>
#include <stdexcept>
#include <string>
#include <unistd.h>

using namespace agent::spf::endpointregistry;

namespace {

const tests::DataPair data("a", "b");

/// The folder of entries goes whenever somebody tidies up while nothing is published.
class EndpointFolderRemoved : public tests::RegistryTest {
protected:
    /// Runs `body` again and again, each time stopped one step later, where the folder is removed
    /// if it is empty.
    static void removeMeanwhile(const std::function<void()>& body, int fewestSteps) {
        constexpr int untilTheEnd = 10'000'000;
        int step = 0;
        for (bool isOnTheWay = true; isOnTheWay; ++step) {
            SCOPED_TRACE("stopped at step " + std::to_string(step));
            tests::provideEntryFolder();
            tests::TracedProcess process(body);
            isOnTheWay = process.run(step);
            ::rmdir(tests::entryFolder().c_str());
            // Would not end, or not well, if it went on with the folder that is gone.
            bool hasEnded = !isOnTheWay;
            if (isOnTheWay) {
                EXPECT_NO_THROW(hasEnded = !process.run(untilTheEnd));
            }
            ASSERT_TRUE(hasEnded);
        }
        EXPECT_GT(step, fewestSteps);
    }
};

} // namespace

TEST_F(EndpointFolderRemoved, IsMadeAgainByAPublisher) {
    removeMeanwhile(
        [] {
            const Endpoint endpoint(data, "tag", "key");
            if (Endpoint::find("tag", "key") != data) {
                throw std::runtime_error("What was published was not found.");
            }
        },
        40);
}

TEST_F(EndpointFolderRemoved, TakesNoEndpointThatWasPublishedSince) {
    auto first = std::make_unique<Endpoint>(data, "tag", "key");
    const std::string elsewhere = tests::privateBase() + "/elsewhere";
    std::filesystem::rename(tests::entryFolder(), elsewhere);
    const Endpoint second(data, "tag", "key");
    EXPECT_EQ(Endpoint::find("tag", "key"), data);
    first.reset();
    EXPECT_EQ(Endpoint::find("tag", "key"), data);
    std::filesystem::remove_all(elsewhere);
}

TEST_F(EndpointFolderRemoved, IsAnEmptyOneToALookup) {
    removeMeanwhile(
        [] {
            if (Endpoint::find("tag", "key") || !Endpoint::list().empty()) {
                throw std::runtime_error("What is not there was found.");
            }
        },
        10);
}
