#include "endpointregistry/Endpoint.h"

#include "foundation/os/FileDescriptor.h"
#include "tests/endpointregistry/LockedFileTools.h"
#include "tests/endpointregistry/SharingTools.h"
#include "tests/support/ForkedProcess.h"
#include "tests/support/TestAccounts.h"

#include <array>
#include <cstdlib>
#include <fcntl.h>
#include <filesystem>
#include <functional>
#include <grp.h>
#include <gtest/gtest.h>
#include <optional>
#include <stdexcept>
#include <string>
#include <unistd.h>
#include <vector>

using namespace agent::spf::endpointregistry;
using tests::as;
using tests::DataPair;
using tests::DataPairs;
using tests::Names;
using tests::Rows;
using tests::Sharer;
using tests::Trustees;

namespace {

namespace accounts = tests::accounts;
namespace fs = std::filesystem;
using accounts::anna;
using accounts::ben;
using accounts::carl;
using accounts::family;
using accounts::friends;

const DataPair annas("data of", "anna");
const DataPair bens("data of", "ben");
const std::string tag = "tag";
const std::string key = "key";

/// anna and ben are friends and of one family, carl is neither.
class EndpointSharing : public tests::SharingTest {};

void expectFound(const DataPairs& expected) {
    EXPECT_EQ(Endpoint::filterFromAllTrustees(tag), expected);
    EXPECT_EQ(Endpoint::filter(tag, {friends}), expected);
    EXPECT_EQ(Endpoint::listFromAllTrustees(), expected);
    EXPECT_EQ(Endpoint::list({friends}), expected);
}

} // namespace

TEST_F(EndpointSharing, LetsMembersFindTheEntry) {
    Sharer publisher(anna, annas, tag, key, {friends});
    as(ben, [] {
        EXPECT_EQ(Endpoint::findFromAllTrustees(tag, key), annas);
        EXPECT_EQ(Endpoint::find(tag, key, {"", friends}), annas);
        expectFound({annas});
        EXPECT_EQ(Endpoint::find(tag, key), std::nullopt);
        EXPECT_EQ(Endpoint::list(), DataPairs());
        EXPECT_EQ(Endpoint::findFromAllTrustees(tag, "other key"), std::nullopt);
        EXPECT_EQ(Endpoint::findFromAllTrustees("other tag", key), std::nullopt);
        EXPECT_EQ(Endpoint::filterFromAllTrustees(""), DataPairs());
    });
    publisher.end();
    as(ben, [] {
        EXPECT_EQ(Endpoint::findFromAllTrustees(tag, key), std::nullopt);
        tests::expectNothingShared(friends);
    });
}

TEST_F(EndpointSharing, LetsMembersShareEqualTagsAndKeysAtTheSameTime) {
    Sharer publisher(anna, annas, tag, key, {friends});
    as(ben, [] {
        Endpoint endpoint(bens, tag, key);
        endpoint.addTrustees({friends});
        EXPECT_EQ(Endpoint::findFromAllTrustees(tag, key), bens);
        expectFound({annas, bens});
        endpoint.removeTrustees({friends});
        EXPECT_EQ(Endpoint::list({friends}), DataPairs{annas});
    });
    as(anna, [] {
        EXPECT_EQ(Endpoint::findFromAllTrustees(tag, key), annas);
        EXPECT_EQ(Endpoint::list({friends}), DataPairs{annas});
    });
    publisher.end();
}

TEST_F(EndpointSharing, LetsMembersShareEqualDataWhichIsListedOnce) {
    Sharer first(anna, annas, tag, key, {family, friends});
    Sharer second(ben, annas, tag, key, {friends});
    for (const std::string& user : {anna, ben}) {
        as(user, [] {
            expectFound({annas});
            EXPECT_EQ(tests::rowsOf(friends).size(), 2U);
        });
    }
    first.end();
    as(anna, [] { expectFound({annas}); });
    second.end();
    as(anna, [] { expectFound({}); });
}

TEST_F(EndpointSharing, WithAKilledMemberIsCleanedUpByOthers) {
    Sharer publisher(anna, annas, tag, key, {friends});
    Sharer other(ben, bens, tag, "other key", {friends});
    publisher.kill();
    as(ben, [&publisher, &other] {
        ASSERT_EQ(tests::sharedEntries(friends).size(), 2U);
        EXPECT_EQ(Endpoint::findFromAllTrustees(tag, key), std::nullopt);
        EXPECT_FALSE(fs::exists(tests::sharedPath(friends, publisher.name())));
        EXPECT_EQ(tests::rowsOf(friends), (Rows{{other.name(), bens.first, bens.second}}));
        EXPECT_EQ(tests::sharedEntries(friends), Names{other.name()});
        EXPECT_EQ(Endpoint::listFromAllTrustees(), DataPairs{bens});
    });
    other.end();
}

TEST_F(EndpointSharing, WithAKilledMemberIsCleanedUpByEveryLookup) {
    const std::vector<std::function<void()>> lookups{
        [] { Endpoint::findFromAllTrustees(tag, key); },
        [] { Endpoint::find(tag, key, {friends}); },
        [] { Endpoint::filterFromAllTrustees(tag); },
        [] { Endpoint::filter(tag, {friends}); },
        [] { Endpoint::listFromAllTrustees(); },
        [] { Endpoint::list({friends}); },
    };
    for (const auto& lookup : lookups) {
        Sharer publisher(anna, annas, tag, key, {friends});
        publisher.kill();
        as(ben, [&lookup] {
            lookup();
            tests::expectNothingShared(friends);
        });
    }
}

TEST_F(EndpointSharing, FindsWhoLivesBesideTheDeadOfTheSameTagAndKey) {
    // Whichever of them the folder lists first.
    for (const bool firstLives : {true, false}) {
        Sharer first(anna, annas, tag, key, {friends});
        Sharer second(ben, bens, tag, key, {friends});
        (firstLives ? second : first).kill();
        as(ben, [firstLives] {
            EXPECT_EQ(Endpoint::find(tag, key, {friends}), firstLives ? annas : bens);
        });
        (firstLives ? first : second).end();
        as(ben, [] {
            EXPECT_EQ(Endpoint::find(tag, key, {friends}), std::nullopt);
            tests::expectNothingShared(friends);
        });
    }
}

TEST_F(EndpointSharing, WithOneGroupIsIndependentOfAnother) {
    Sharer publisher(anna, annas, tag, key, {family, friends});
    Sharer other(ben, bens, tag, key, {family});
    publisher.remove({family});
    as(ben, [] {
        EXPECT_EQ(Endpoint::list({friends}), DataPairs{annas});
        EXPECT_EQ(Endpoint::list({family}), DataPairs{bens});
    });
    publisher.add({family});
    publisher.kill();
    as(ben, [&other] {
        EXPECT_EQ(Endpoint::list({friends}), DataPairs());
        tests::expectNothingShared(friends);
        // What is dead in this group nobody has looked at yet.
        EXPECT_EQ(tests::rowsOf(family).size(), 2U);
        EXPECT_EQ(Endpoint::list({family}), DataPairs{bens});
        EXPECT_EQ(tests::sharedEntries(family), Names{other.name()});
    });
    other.end();
}

TEST_F(EndpointSharing, MakesNothingByLookupsWhereNobodyEverShared) {
    for (const std::string& user : {anna, carl}) {
        as(user, [] {
            expectFound({});
            EXPECT_EQ(Endpoint::findFromAllTrustees(tag, key), std::nullopt);
            EXPECT_EQ(Endpoint::list({"", anna, family, friends}), DataPairs());
            EXPECT_TRUE(fs::is_empty("/home/Shared"));
            EXPECT_TRUE(tests::kernelSegments().empty());
        });
    }
}

TEST_F(EndpointSharing, ReadsTheGroupsAfreshOnEveryCall) {
    Sharer publisher(anna, annas, tag, key, {friends});
    EXPECT_EQ(tests::runInChild([] {
                  const gid_t group = accounts::groupId(friends);
                  ASSERT_EQ(::setgroups(0, nullptr), 0);
                  EXPECT_EQ(Endpoint::findFromAllTrustees(tag, key), std::nullopt);
                  Endpoint endpoint({"data of", "root"}, tag, "other key");
                  EXPECT_THROW(endpoint.addTrustees({friends}), std::invalid_argument);
                  ASSERT_EQ(::setgroups(1, &group), 0);
                  EXPECT_EQ(Endpoint::findFromAllTrustees(tag, key), annas);
                  endpoint.addTrustees({friends});
                  EXPECT_EQ(Endpoint::list({friends}), (DataPairs{annas, {"data of", "root"}}));
                  ASSERT_EQ(::setgroups(0, nullptr), 0);
                  EXPECT_EQ(Endpoint::findFromAllTrustees(tag, key), std::nullopt);
                  EXPECT_EQ(endpoint.getTrustees(), Trustees{friends});
                  endpoint.clearTrustees();
              }),
              0);
    as(ben, [] { EXPECT_EQ(Endpoint::list({friends}), DataPairs{annas}); });
    publisher.end();
}

TEST_F(EndpointSharing, IsOpenToAMemberByPrimaryGroupAlone) {
    as(anna, [] {
        Endpoint endpoint(annas, tag, key);
        endpoint.addTrustees({anna});
        EXPECT_EQ(Endpoint::find(tag, key, {anna}), annas);
        EXPECT_EQ(endpoint.getTrustees(), Trustees{anna});
    });
}

TEST_F(EndpointSharing, ByAForkedChildIsTheChildsOwn) {
    as(anna, [] {
        Endpoint endpoint(annas, tag, key);
        endpoint.addTrustees({friends});
        EXPECT_EQ(
            tests::runInChild([] {
                EXPECT_EQ(Endpoint::findFromAllTrustees(tag, key), annas);
                Endpoint own({"data of", "the child"}, tag, "child's key");
                own.addTrustees({friends});
                EXPECT_EQ(Endpoint::list({friends}), (DataPairs{annas, {"data of", "the child"}}));
            }),
            0);
        EXPECT_EQ(Endpoint::list({friends}), DataPairs{annas});
    });
}

TEST_F(EndpointSharing, LastsForAsLongAsAForkedChildOfTheDeadPublisherDoes) {
    std::array<int, 2> ends{};
    ASSERT_EQ(::pipe2(ends.data(), O_CLOEXEC), 0);
    const foundation::os::FileDescriptor readEnd(ends[0]);
    foundation::os::FileDescriptor writeEnd(ends[1]);
    tests::ForkedProcess publisher([&](tests::Channel& test) {
        accounts::become(anna);
        Endpoint endpoint(annas, tag, key);
        endpoint.addTrustees({friends});
        writeEnd.reset();
        if (::fork() == 0) {
            char byte = 0;
            ::_exit(::read(readEnd.get(), &byte, 1) == 0 ? EXIT_SUCCESS : EXIT_FAILURE);
        }
        test.send("forked");
        test.receive();
    });
    publisher.channel().receive();
    publisher.kill();
    as(ben, [] { EXPECT_EQ(Endpoint::list({friends}), DataPairs{annas}); });
    writeEnd.reset();
    as(ben, [] {
        tests::waitUntil([] { return Endpoint::list({friends}).empty(); }, "the entry's end");
        tests::expectNothingShared(friends);
    });
}
