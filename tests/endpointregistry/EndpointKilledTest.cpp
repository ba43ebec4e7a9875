#include "endpointregistry/Endpoint.h"

#include "tests/endpointregistry/EndpointProcesses.h"
#include "tests/endpointregistry/EndpointTools.h"
#include "tests/endpointregistry/LockedFileProcesses.h"
#include "tests/endpointregistry/LockedFileTools.h"
#include "tests/support/ForkedProcess.h"

#include <atomic>
#include <gtest/gtest.h>
#include <optional>
#include <string>
#include <vector>

using namespace agent::spf::endpointregistry;
using tests::Channel;
using tests::Crew;
using tests::DataPair;
using tests::DataPairs;
using tests::ForkedProcess;
using tests::StartSignal;

namespace {

constexpr int rounds = 150;
constexpr std::size_t readerCount = 8;

const DataPair data("ab", "c");
const std::string tag = "tag";
const std::string key = "key";

/// Publishes until it is killed.
void publish(Channel& test) {
    const Endpoint endpoint(data, tag, key);
    test.send("published");
    test.receive();
}

class KilledPublisher : public tests::RegistryTest {
protected:
    static void expectNothingLeft() {
        EXPECT_EQ(tests::entryFiles(), std::vector<std::string>());
        EXPECT_EQ(tests::segmentFiles(), std::vector<std::string>());
    }
};

} // namespace

TEST_F(KilledPublisher, IsFoundByOtherProcessesWhileItLives) {
    ForkedProcess publisher(publish);
    EXPECT_EQ(publisher.channel().receive(), "published");
    EXPECT_EQ(Endpoint::find(tag, key), data);
    EXPECT_EQ(Endpoint::filter(tag), DataPairs{data});
    EXPECT_EQ(Endpoint::list(), DataPairs{data});
    EXPECT_THROW(Endpoint(data, tag, key), Endpoint::DuplicateEndpointError);
    publisher.channel().send("end");
    EXPECT_EQ(publisher.waitForExit(), 0);
    EXPECT_EQ(Endpoint::find(tag, key), std::nullopt);
}

TEST_F(KilledPublisher, IsNotFoundAndWhatItLeftIsRemoved) {
    ForkedProcess publisher(publish);
    publisher.channel().receive();
    publisher.kill();
    EXPECT_EQ(tests::entryFiles().size(), 1U);
    EXPECT_EQ(tests::segmentFiles().size(), 1U);
    EXPECT_EQ(tests::runInChild([] { EXPECT_EQ(Endpoint::find(tag, key), std::nullopt); }), 0);
    expectNothingLeft();
}

TEST_F(KilledPublisher, IsNotFoundEvenBeforeItsProcessIdIsFree) {
    ForkedProcess publisher(publish);
    publisher.channel().receive();
    tests::killWithoutReaping(publisher);
    EXPECT_EQ(Endpoint::list(), DataPairs());
    expectNothingLeft();
}

TEST_F(KilledPublisher, DoesNotKeepOthersFromPublishing) {
    ForkedProcess publisher(publish);
    publisher.channel().receive();
    publisher.kill();
    const Endpoint next({"next", ""}, tag, key);
    EXPECT_EQ(Endpoint::list(), (DataPairs{{"next", ""}}));
    EXPECT_EQ(tests::entryFiles().size(), 1U);
}

TEST_F(KilledPublisher, IsFoundByNoneOfManyReadersAtOnce) {
    const StartSignal start;
    const Crew readers(readerCount, [&start](std::size_t number, Channel& test) {
        while (true) {
            start.await();
            const bool found =
                number % 2 == 0 ? Endpoint::find(tag, key).has_value() : !Endpoint::list().empty();
            test.send(found ? "found" : "nothing");
            test.receive();
        }
    });
    const std::vector<std::string> nothing(readerCount, "nothing");
    for (int round = 0; round < rounds; ++round) {
        ForkedProcess publisher(publish);
        publisher.channel().receive();
        // Both ways by which a reader learns that the publisher is dead.
        if (round % 2 == 0) {
            publisher.kill();
        } else {
            tests::killWithoutReaping(publisher);
        }
        start.give(readerCount);
        ASSERT_EQ(readers.hear(), nothing) << "in round " << round;
        expectNothingLeft();
        readers.tell("next");
    }
}

TEST_F(KilledPublisher, IsClearedAwayEvenIfThoseWhoClearUpAreKilledToo) {
    for (int round = 0; round < rounds; ++round) {
        ForkedProcess publisher(publish);
        publisher.channel().receive();
        publisher.kill();
        {
            const StartSignal start;
            const Crew readers(2, [&start](std::size_t, Channel& test) {
                test.send("ready");
                start.await();
                Endpoint::list();
            });
            readers.hear();
            start.give(readers.size());
        }
        EXPECT_EQ(Endpoint::list(), DataPairs());
        expectNothingLeft();
    }
}

TEST_F(KilledPublisher, MayHaveBeenAboutToPublishOrToWithdraw) {
    const tests::SharedWithChildren<std::atomic<int>> published;
    for (int round = 0; round < rounds; ++round) {
        *published = 0;
        {
            const Crew publishers(2, [&published](std::size_t number, Channel&) {
                while (true) {
                    const Endpoint endpoint(data, tag + std::to_string(number), key);
                    ++*published;
                }
            });
            tests::waitUntil([&] { return *published > round % 10; }, "publications");
        }
        EXPECT_EQ(Endpoint::list(), DataPairs());
        EXPECT_TRUE(Endpoint(data, tag + "0", key));
        expectNothingLeft();
    }
}
