#include "endpointregistry/Endpoint.h"

#include "endpointregistry/EntryName.h"
#include "endpointregistry/NamedStringArray.h"
#include "endpointregistry/detail/EntryCopy.h"
#include "endpointregistry/detail/GroupFiles.h"
#include "sharedmemory/SegmentRecord.h"
#include "tests/endpointregistry/LockedFileTools.h"
#include "tests/endpointregistry/SharingTools.h"
#include "tests/support/TestAccounts.h"

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <filesystem>
#include <functional>
#include <gtest/gtest.h>
#include <limits>
#include <optional>
#include <string>
#include <sys/stat.h>
#include <unistd.h>
#include <vector>

using namespace agent::spf::endpointregistry;
using agent::spf::sharedmemory::SegmentRecord;
using agent::spf::sharedmemory::SegmentToken;
using tests::as;
using tests::DataPair;
using tests::DataPairs;
using tests::Sharer;

namespace {

namespace accounts = tests::accounts;
namespace fs = std::filesystem;
using accounts::anna;
using accounts::ben;
using accounts::friends;

const DataPair data("first", "and second");
const std::string tag = "tag";
const std::string key = "key";
/// Of no base that there is.
const SegmentToken noBase{1, 2, 3};

std::string ownName() {
    return tests::entryName(data, tag, key, ::getpid());
}

std::string copyOf(const DataPair& pair, const SegmentToken& base = noBase) {
    return entrycopy::contentsOf(pair, base);
}

/// A copy whose 64 bits from the offset on state something else.
std::string withNumberAt(std::size_t offset, std::uint64_t number) {
    std::string contents = copyOf(data);
    std::memcpy(contents.data() + offset, &number, sizeof number);
    return contents;
}

/// The token of the base of the friends' table, from its record.
SegmentToken tokenOfTheTable() {
    const auto record = SegmentRecord::parse(tests::contentOf(tests::baseRecord(friends)));
    EXPECT_TRUE(record);
    return record ? record->token : noBase;
}

/// The caller's own entry made without the library but for its file's lock.
LockedFile liveWith(const std::string& contents, const std::string& name = ownName()) {
    LockedFile file = groupfiles::createAndTryLock(name, tests::entryParent, friends, contents);
    EXPECT_TRUE(file.isLocked());
    return file;
}

/// Expects every lookup to find exactly this.
void expectFound(const std::optional<DataPair>& expected) {
    const DataPairs all = expected ? DataPairs{*expected} : DataPairs();
    EXPECT_EQ(Endpoint::find(tag, key, {friends}), expected);
    EXPECT_EQ(Endpoint::findFromAllTrustees(tag, key), expected);
    EXPECT_EQ(Endpoint::filter(tag, {friends}), all);
    EXPECT_EQ(Endpoint::list({friends}), all);
}

/// In processes of anna's: copies of the data in entries' files, which answer where the table is
/// lost.
class EndpointSharingCopies : public tests::SharingTest {
protected:
    static void asAnna(const std::function<void()>& body) { as(anna, body); }
};

} // namespace

TEST_F(EndpointSharingCopies, AnswerWhereThereIsNoTable) {
    asAnna([] {
        const LockedFile file = liveWith(copyOf(data));
        expectFound(data);
        EXPECT_TRUE(tests::kernelSegments().empty());
    });
}

TEST_F(EndpointSharingCopies, AnswerWhereAnotherTableStandsThanTheirs) {
    asAnna([] {
        const LockedFile file = liveWith(copyOf(data));
        NamedStringArray(tests::tableName, 0, friends).insert({"anything", "else"});
        expectFound(data);
    });
}

TEST_F(EndpointSharingCopies, DoNotAnswerWhereTheirTableStandsAndHasNoRow) {
    asAnna([] {
        NamedStringArray table(tests::tableName, 0, friends);
        table.insert({"anything", "else"});
        const LockedFile file = liveWith(copyOf(data, tokenOfTheTable()));
        expectFound(std::nullopt);
        table.insert({ownName(), "what", "counts"});
        expectFound(DataPair("what", "counts"));
        table.erase({ownName(), "what", "counts"});
        expectFound(std::nullopt);
    });
}

TEST_F(EndpointSharingCopies, DoNotAnswerForARowThatSomebodyErases) {
    Sharer publisher(anna, data, tag, key, {friends});
    as(ben, [&publisher] {
        expectFound(data);
        NamedStringArray(tests::tableName, 0, friends)
            .erase({publisher.name(), data.first, data.second});
        expectFound(std::nullopt);
    });
    publisher.remove({friends});
    publisher.add({friends});
    as(ben, [] { expectFound(data); });
    publisher.end();
    as(ben, [] { tests::expectNothingShared(friends); });
}

TEST_F(EndpointSharingCopies, AreOfTheBaseThatTheRowWentInto) {
    const Sharer publisher(anna, data, tag, key, {friends});
    const std::string contents = tests::contentOf(tests::sharedPath(friends, publisher.name()));
    EXPECT_EQ(contents, copyOf(data, tokenOfTheTable()));
}

TEST_F(EndpointSharingCopies, AreNotNeededByEntriesThatHaveARow) {
    asAnna([] {
        NamedStringArray table(tests::tableName, 0, friends);
        const LockedFile file = liveWith("");
        expectFound(std::nullopt);
        table.insert({ownName(), data.first, data.second});
        expectFound(data);
        deleteNamedStringArray(tests::tableName, 0, friends);
        expectFound(std::nullopt);
        EXPECT_TRUE(tests::isHeld(tests::sharedPath(friends, ownName())));
    });
}

TEST_F(EndpointSharingCopies, AreSkippedWhenTheyContradictThemselvesOrTheEntrysName) {
    constexpr std::size_t lengthAt = 24;
    const std::string good = copyOf(data);
    const std::vector<std::string> hostile{
        "",
        "q",
        good.substr(0, good.size() - 1),
        good + "x",
        std::string(good.size(), '\0'),
        std::string(1'000'000, 'x'),
        "Q" + good.substr(1),
        good.substr(0, lengthAt),
        copyOf({data.first, data.second + "x"}),
        copyOf({"", ""}),
        withNumberAt(lengthAt, data.first.size() + data.second.size() + 1),
        withNumberAt(lengthAt, std::numeric_limits<std::uint64_t>::max()),
        withNumberAt(lengthAt, std::uint64_t{1} << 63U),
    };
    for (const std::string& contents : hostile) {
        asAnna([&contents] {
            const LockedFile file = liveWith(contents);
            expectFound(std::nullopt);
            EXPECT_TRUE(tests::isHeld(tests::sharedPath(friends, ownName())));
        });
    }
    asAnna([] {
        // All of it may be the first string.
        const LockedFile file = liveWith(withNumberAt(24, data.first.size() + data.second.size()));
        expectFound(DataPair(data.first + data.second, ""));
    });
}

TEST_F(EndpointSharingCopies, AreSkippedWhereTheNameStatesWhatNoFileHolds) {
    for (const std::string length :
         {"0", "64", "67108865", "9223372036854775807", "18446744073709551615",
          "99999999999999999999999999", "-1", "x", ""}) {
        asAnna([&length] {
            const std::string name = getExtendedPrefix(data, tag) + getSelectedKeySubstring(key) +
                                     "l" + length + "p" + std::to_string(::getpid()) + "v0";
            const LockedFile file = liveWith(copyOf(data), name);
            expectFound(std::nullopt);
        });
    }
}

TEST_F(EndpointSharingCopies, AreNotBelievedInFilesThatAreNotTheGroups) {
    // Who has left the group may still write to the folder that they once made.
    asAnna([] {
        const LockedFile file = liveWith(copyOf(data));
        const std::string path = tests::sharedPath(friends, ownName());
        expectFound(data);
        ASSERT_EQ(::chmod(path.c_str(), 0444), 0);
        expectFound(std::nullopt);
        ASSERT_EQ(::chmod(path.c_str(), 0470), 0);
        ASSERT_EQ(
            ::chown(path.c_str(), accounts::userId(anna), accounts::groupId(accounts::family)), 0);
        expectFound(std::nullopt);
    });
}

TEST_F(EndpointSharingCopies, TakeNoMoreMemoryTogetherThanATable) {
    asAnna([] {
        constexpr std::size_t half = entrycopy::maxTotal / 2;
        std::vector<LockedFile> files;
        for (const char* const first : {"a", "b", "c"}) {
            const DataPair large(first, std::string(half, 'x'));
            files.push_back(
                liveWith(copyOf(large), tests::entryName(large, tag, first, ::getpid())));
        }
        files.push_back(liveWith(copyOf(data)));
        const DataPairs found = Endpoint::list({friends});
        EXPECT_EQ(found.size(), 2U) << "one of the large ones, and what there is room for";
        EXPECT_EQ(found.back(), data);
    });
}

TEST_F(EndpointSharingCopies, AreNotReadFromWhatIsNoFile) {
    asAnna([] { liveWith(""); });
    const std::string path =
        tests::sharedPath(friends, tests::entryName(data, tag, key, ::getpid()));
    const std::string target = tests::sharedPath(friends, "target");
    const std::vector<std::function<void()>> plants{
        [&] { ASSERT_EQ(::mkfifo(path.c_str(), 0660), 0); },
        [&] { fs::create_directory(path); },
        [&] { fs::create_symlink("nowhere", path); },
        [&] { fs::create_symlink(target, path); },
    };
    tests::ForkedProcess holder([&target](tests::Channel& test) {
        accounts::become(anna);
        const LockedFile file = liveWith(copyOf(data), "target");
        test.send("held");
        test.receive();
    });
    holder.channel().receive();
    for (const auto& plant : plants) {
        asAnna(plant);
        as(ben, [] {
            EXPECT_EQ(Endpoint::find(tag, key, {friends}), std::nullopt);
            EXPECT_EQ(Endpoint::list({friends}), DataPairs());
        });
        fs::remove_all(path);
    }
    holder.channel().send("end");
    EXPECT_EQ(holder.waitForExit(), 0);
}

TEST_F(EndpointSharingCopies, OfTheDeadAreNeverReturnedAndGoAtTheNextLook) {
    const std::vector<std::function<void()>> lookups{
        [] { EXPECT_EQ(Endpoint::find(tag, key, {friends}), std::nullopt); },
        [] { EXPECT_EQ(Endpoint::filter(tag, {friends}), DataPairs()); },
        [] { EXPECT_EQ(Endpoint::listFromAllTrustees(), DataPairs()); },
    };
    for (const auto& lookup : lookups) {
        asAnna([] {
            LockedFile file = liveWith(copyOf(data));
            file.makePersistent();
        });
        ASSERT_EQ(tests::sharedEntries(friends).size(), 1U);
        as(ben, lookup);
        EXPECT_EQ(tests::sharedEntries(friends), tests::Names());
    }
}
