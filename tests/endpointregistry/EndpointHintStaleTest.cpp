#include "endpointregistry/Endpoint.h"

#include "endpointregistry/EntryName.h"
#include "endpointregistry/detail/EndpointPosixImpl.h"
#include "tests/endpointregistry/EndpointFolderWatch.h"
#include "tests/endpointregistry/EndpointHintTools.h"
#include "tests/endpointregistry/EndpointTools.h"
#include "tests/endpointregistry/LockedFileTools.h"
#include "tests/support/ForkedProcess.h"

#include <filesystem>
#include <functional>
#include <gtest/gtest.h>
#include <string>
#include <unistd.h>
#include <vector>

using namespace agent::spf::endpointregistry;
using tests::DataPair;
using tests::DataPairs;
using tests::PlantedEntry;

namespace {

namespace fs = std::filesystem;
using Strings = std::vector<std::string>;

const DataPair data("ab", "c");
const std::string tag = "tag";
const std::string key = "key";

/// A text whose hash has fewer digits than nearly all others have.
std::string withShortHash(const std::string& text) {
    constexpr std::size_t most = 15;
    for (int number = 0;; ++number) {
        std::string candidate = text + std::to_string(number);
        if (hashString(candidate).size() <= most) {
            return candidate;
        }
    }
}

class StaleHint : public tests::RegistryTest {
protected:
    /// Expects that whoever looks removes what a killed publisher has left, the hint included.
    static void expectRemovedBy(const std::function<void()>& look) {
        ASSERT_NO_FATAL_FAILURE(tests::publishAndDie(data, tag, key));
        ASSERT_NE(tests::hintText(tag, key), std::nullopt);
        look();
        EXPECT_EQ(tests::hintFiles(), Strings());
        EXPECT_EQ(tests::entryFiles(), Strings());
        EXPECT_EQ(tests::segmentFiles(), Strings());
    }
};

} // namespace

TEST_F(StaleHint, IsRemovedByEveryKindOfLookup) {
    expectRemovedBy([] { EXPECT_EQ(Endpoint::find(tag, key), std::nullopt); });
    expectRemovedBy([] { EXPECT_EQ(Endpoint::filter(tag), DataPairs()); });
    expectRemovedBy([] { EXPECT_EQ(Endpoint::list(), DataPairs()); });
}

TEST_F(StaleHint, IsReplacedByTheNextPublisher) {
    ASSERT_NO_FATAL_FAILURE(tests::publishAndDie({"dead", ""}, tag, key));
    const Endpoint endpoint(data, tag, key);
    EXPECT_TRUE(tests::isFoundByHint(data, tag, key));
    EXPECT_EQ(Endpoint::list(), DataPairs{data}); // Clears the dead entry away.
    EXPECT_EQ(tests::entryFiles().size(), 1U);
    EXPECT_TRUE(tests::isFoundByHint(data, tag, key));
}

TEST_F(StaleHint, IsRemovedBeforeTheEntryThatItNames) {
    ASSERT_NO_FATAL_FAILURE(tests::publishAndDie(data, tag, key));
    const std::string name = tests::entryFiles().front();
    tests::FolderWatch watch({tests::entryFolder(), tests::hintFolder(), "/dev/shm"});
    EXPECT_EQ(Endpoint::list(), DataPairs());
    EXPECT_EQ(watch.changes(),
              (Strings{"-" + fs::path(tests::hintPath(tag, key)).filename().string(),
                       "-" + fs::path(tests::segmentPath(name)).filename().string(), "-" + name}));
}

TEST_F(StaleHint, IsFoundByTheNameOfTheEntryHoweverLongItsHashesAre) {
    const std::string shortTag = withShortHash("tag ");
    const std::string shortKey = withShortHash("key ");
    const std::string shortData = withShortHash("data ");
    for (const std::string& itsTag : {tag, shortTag}) {
        for (const std::string& itsKey : {key, shortKey}) {
            for (const std::string& itsData : {data.first, shortData}) {
                ASSERT_NO_FATAL_FAILURE(tests::publishAndDie({itsData, ""}, itsTag, itsKey));
                ASSERT_EQ(tests::hintFiles().size(), 1U);
                EXPECT_EQ(Endpoint::list(), DataPairs());
                EXPECT_EQ(tests::hintFiles(), Strings());
            }
        }
    }
}

TEST_F(StaleHint, ToAnEntryThatIsNotThereIsRemovedByWhoeverLooksForIt) {
    tests::plantHint(tag, key, tests::entryName(data, tag, key, tests::noProcess));
    EXPECT_EQ(Endpoint::find(tag, key), std::nullopt);
    EXPECT_EQ(tests::hintFiles(), Strings());
}

TEST_F(StaleHint, ToASegmentWithoutAFileFindsNothing) {
    const std::string name = tests::entryName(data, tag, key, ::getpid());
    tests::plantSegment(name, tests::segmentBytes(data));
    tests::plantHint(tag, key, name);
    EXPECT_EQ(Endpoint::find(tag, key), std::nullopt);
    EXPECT_EQ(tests::hintFiles(), Strings());
    fs::remove(tests::segmentPath(name));
}

TEST_F(StaleHint, ToAnEntryThatIsNotReadyFindsNothing) {
    const std::string name = tests::entryName(data, tag, key, ::getpid());
    PlantedEntry entry(name, tests::segmentBytes(data, 0));
    entry.hold();
    tests::plantHint(tag, key, name);
    EXPECT_EQ(Endpoint::find(tag, key), std::nullopt);
    EXPECT_TRUE(entry.hasFile());
}

TEST_F(StaleHint, DoesNotHideTheLivingEntryOfItsKey) {
    const Endpoint endpoint(data, tag, key);
    const PlantedEntry dead(tests::entryName({"dead", ""}, tag, key, tests::noProcess),
                            tests::segmentBytes({"dead", ""}));
    tests::plantHint(tag, key, dead.name());
    EXPECT_EQ(Endpoint::find(tag, key), data);
    EXPECT_FALSE(dead.hasFile());
    EXPECT_FALSE(dead.hasSegment());
}

TEST_F(StaleHint, OfATakenOverEntryIsGoneBeforeTheEntryStands) {
    // Left by an earlier process of this process id; whoever takes its entry over may not stay.
    const PlantedEntry dead(tests::entryName(data, tag, key, ::getpid()),
                            tests::segmentBytes(data));
    tests::plantHint(tag, key, dead.name());
    {
        const Endpoint::PosixImpl record(data, tag, key, "");
        EXPECT_EQ(tests::hintFiles(), Strings());
    }
    EXPECT_EQ(tests::entryFiles(), Strings());
}

TEST_F(StaleHint, OfATakenOverEntryIsMadeAnew) {
    const PlantedEntry dead(tests::entryName(data, tag, key, ::getpid()),
                            tests::segmentBytes(data));
    tests::plantHint(tag, key, dead.name());
    const Endpoint endpoint(data, tag, key);
    EXPECT_TRUE(tests::isFoundByHint(data, tag, key));
}

TEST_F(StaleHint, OfEachKilledPublisherGoesWithTheFirstListing) {
    constexpr int count = 30;
    const Endpoint living(data, tag, key);
    for (int number = 0; number < count; ++number) {
        const std::string text = std::to_string(number);
        ASSERT_NO_FATAL_FAILURE(tests::publishAndDie({text, ""}, "tag " + text, "key " + text));
    }
    EXPECT_EQ(tests::hintFiles().size(), count + 1U);
    EXPECT_EQ(Endpoint::list(), DataPairs{data});
    EXPECT_EQ(tests::hintFiles().size(), 1U);
    EXPECT_TRUE(tests::isFoundByHint(data, tag, key));
}

TEST_F(StaleHint, IsNotThatOfAnEntryWhichAForkedChildKeepsAlive) {
    // A forked child holds the lock of its dead parent's entry, which lives for as long.
    tests::ForkedProcess parent([](tests::Channel& test) {
        const Endpoint entry(data, tag, key);
        const pid_t child = ::fork();
        if (child == 0) {
            test.receive();
            ::_exit(0);
        }
        test.send("published");
        ::pause();
    });
    parent.channel().receive();
    parent.kill();
    EXPECT_TRUE(tests::isFoundByHint(data, tag, key));
    parent.channel().send("end");
    tests::waitUntil([] { return !Endpoint::find(tag, key); }, "the child has ended");
    EXPECT_EQ(tests::hintFiles(), Strings());
}
