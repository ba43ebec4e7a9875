#include "endpointregistry/Endpoint.h"

#include "endpointregistry/NamedStringArray.h"
#include "tests/endpointregistry/LockedFileTools.h"
#include "tests/endpointregistry/SharingTools.h"
#include "tests/support/ForkedProcess.h"
#include "tests/support/TestAccounts.h"
#include "tests/support/TracedProcess.h"

#include <algorithm>
#include <cstddef>
#include <filesystem>
#include <fstream>
#include <functional>
#include <gtest/gtest.h>
#include <optional>
#include <sched.h>
#include <stdexcept>
#include <string>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>
#include <vector>

using namespace agent::spf::endpointregistry;
using tests::as;
using tests::Channel;
using tests::DataPair;
using tests::DataPairs;
using tests::ForkedProcess;
using tests::KernelSegment;
using tests::Names;
using tests::Rows;
using tests::Sharer;
using tests::TracedProcess;

namespace {

namespace accounts = tests::accounts;
namespace fs = std::filesystem;
using accounts::anna;
using accounts::ben;
using accounts::friends;

const std::string tag = "tag";

/// Each entry's key is its second string.
const DataPair annas("data of", "anna");
const DataPair bens("data of", "ben");
const DataPair later("something", "later");
const DataPair unheld("data of", "nora");

constexpr int untilTheEnd = 100'000;

Sharer sharerOf(const DataPair& data, const std::string& user) {
    return {user, data, tag, data.second, {friends}};
}

/// By every lookup, and by every member.
void expectFound(DataPairs expected) {
    std::sort(expected.begin(), expected.end());
    for (const std::string& user : {anna, ben}) {
        as(user, [&expected] {
            EXPECT_EQ(Endpoint::list({friends}), expected);
            EXPECT_EQ(Endpoint::filter(tag, {friends}), expected);
            for (const DataPair& data : {annas, bens, later}) {
                const bool isThere = std::count(expected.begin(), expected.end(), data) != 0;
                EXPECT_EQ(Endpoint::find(tag, data.second, {friends}),
                          isThere ? std::optional(data) : std::nullopt);
            }
        });
    }
}

void expectNothingLeft() {
    expectFound({});
    as(ben, [] { tests::expectNothingShared(friends); });
}

/// As a member, in a process that ends at once.
void insertAnything() {
    as(ben, [] {
        NamedStringArray table(tests::tableName, 0, friends);
        table.insert({"anything"});
        table.erase({"anything"});
    });
}

/// What is lost of a table that anna has made, and how.
struct Loss {
    std::string name;
    std::function<void()> happen;
};

void removeAnnas(bool isBase) {
    tests::removeSegmentsOf(
        anna, [isBase](const KernelSegment& segment) { return tests::isBase(segment) == isBase; });
}

const std::vector<Loss>& losses() {
    static const std::vector<Loss> all{
        {"logout", [] { tests::logOut(anna); }},
        {"base removed", [] { removeAnnas(true); }},
        {"container removed", [] { removeAnnas(false); }},
        {"record of the base removed", [] { fs::remove(tests::baseRecord(friends)); }},
        {"all records removed", [] { fs::remove_all(tests::recordFolder(friends)); }},
        {"table deleted",
         [] { as(ben, [] { deleteNamedStringArray(tests::tableName, 0, friends); }); }},
    };
    return all;
}

class EndpointSharingLogout : public tests::SharingTest {
protected:
    /// Runs the body after each loss, on a machine where anna made the table and both have an entry
    /// in it.
    static void
    afterEachLoss(const std::function<void(Sharer& annaSharer, Sharer& benSharer)>& body) {
        for (const Loss& loss : losses()) {
            SCOPED_TRACE(loss.name);
            startAfresh();
            Sharer first = sharerOf(annas, anna);
            Sharer second = sharerOf(bens, ben);
            loss.happen();
            as(ben, [] { EXPECT_EQ(tests::rowsOf(friends), Rows()); });
            body(first, second);
        }
    }
};

} // namespace

TEST_F(EndpointSharingLogout, OfTheMemberWhoMadeTheTableHidesNoEntryThatLives) {
    afterEachLoss([](Sharer& first, Sharer& second) {
        expectFound({annas, bens});
        first.end();
        expectFound({bens});
        second.end();
        expectNothingLeft();
    });
}

TEST_F(EndpointSharingLogout, HidesNeitherWhatWasSharedBeforeNorWhatIsSharedAfterIt) {
    afterEachLoss([](Sharer& first, Sharer& second) {
        Sharer third = sharerOf(later, ben);
        expectFound({annas, bens, later});
        as(anna, [&third] {
            EXPECT_EQ(tests::rowsOf(friends), (Rows{{third.name(), later.first, later.second}}));
        });
        second.end();
        expectFound({annas, later});
        third.end();
        expectFound({annas});
        first.end();
        expectNothingLeft();
    });
}

TEST_F(EndpointSharingLogout, HidesNothingOnceAnybodyHasInsertedSomethingElse) {
    afterEachLoss([](Sharer& first, Sharer& second) {
        insertAnything();
        expectFound({annas, bens});
        insertAnything();
        expectFound({annas, bens});
        first.end();
        second.end();
        expectNothingLeft();
    });
}

TEST_F(EndpointSharingLogout, LetsEntriesMoveIntoTheNewTable) {
    afterEachLoss([](Sharer& first, Sharer& second) {
        second.remove({friends});
        expectFound({annas});
        second.add({friends});
        expectFound({annas, bens});
        as(anna, [] { EXPECT_EQ(tests::rowsOf(friends).size(), 1U); });
        first.end();
        second.end();
        expectNothingLeft();
    });
}

TEST_F(EndpointSharingLogout, OfOneAfterTheOtherHidesNothing) {
    Sharer first = sharerOf(annas, anna);
    tests::logOut(anna);
    Sharer second = sharerOf(bens, ben);
    tests::logOut(ben);
    expectFound({annas, bens});
    Sharer third = sharerOf(later, anna);
    expectFound({annas, bens, later});
    tests::logOut(anna);
    expectFound({annas, bens, later});
    second.end();
    first.end();
    expectFound({later});
    third.end();
    expectNothingLeft();
}

TEST_F(EndpointSharingLogout, ShowsNothingOfTheDeadAndLetsOthersClearUpAfterThem) {
    afterEachLoss([](Sharer& first, Sharer& second) {
        first.kill();
        second.killWithoutReaping();
        for (const DataPair& data : {annas, bens}) {
            as(ben,
               [&data] { EXPECT_EQ(Endpoint::find(tag, data.second, {friends}), std::nullopt); });
        }
        EXPECT_EQ(tests::sharedEntries(friends), Names());
        expectNothingLeft();
    });
}

TEST_F(EndpointSharingLogout, ShowsNothingOfTheDeadWhoseNumberAnotherProcessHas) {
    Sharer holder = sharerOf(annas, anna);
    // A file as the holder's but for its lock, under the name of a process that lives.
    std::string contents = tests::contentOf(tests::sharedPath(friends, holder.name()));
    const std::size_t at = contents.rfind(annas.second);
    ASSERT_NE(at, std::string::npos);
    contents.replace(at, unheld.second.size(), unheld.second);
    const std::string name = tests::entryName(unheld, tag, unheld.second, ::getpid());
    std::ofstream(tests::sharedPath(friends, name)) << contents;
    ASSERT_EQ(::chmod(tests::sharedPath(friends, name).c_str(), 0470), 0);
    ASSERT_EQ(::chown(tests::sharedPath(friends, name).c_str(), accounts::userId(anna),
                      accounts::groupId(friends)),
              0);
    tests::logOut(anna);
    expectFound({annas});
    as(ben, [] { EXPECT_EQ(Endpoint::find(tag, unheld.second, {friends}), std::nullopt); });
    holder.end();
}

TEST_F(EndpointSharingLogout, IsSurvivedByALookupThatIsAtIt) {
    Sharer first = sharerOf(annas, anna);
    Sharer second = sharerOf(bens, ben);
    ForkedProcess reader([](Channel& test) {
        accounts::become(ben);
        test.send("begun");
        for (int round = 0; round < 500; ++round) {
            EXPECT_EQ(Endpoint::list({friends}), (DataPairs{annas, bens}));
        }
    });
    reader.channel().receive();
    for (int round = 0; round < 10; ++round) {
        for (const Loss& loss : losses()) {
            loss.happen();
            insertAnything();
        }
    }
    EXPECT_EQ(reader.waitForExit(), 0);
    first.end();
    second.end();
    expectNothingLeft();
}

TEST_F(EndpointSharingLogout, HidesNothingFromALookupThatIsAboutToLockTheTable) {
    Sharer first = sharerOf(annas, anna);
    TracedProcess reader([] {
        accounts::become(ben);
        if (Endpoint::list({friends}) != DataPairs{annas}) {
            throw std::runtime_error("The lookup does not find what lives.");
        }
    });
    ASSERT_TRUE(reader.runToCall(SYS_flock, [](const auto&) { return true; }));
    tests::logOut(anna);
    // The next table looks just as the one that was found, in its container's name and size.
    Sharer second = sharerOf(unheld, ben);
    EXPECT_FALSE(reader.run(untilTheEnd));
    second.end();
    first.end();
}

TEST_F(EndpointSharingLogout, IsLikeLivingInAnotherIpcNamespace) {
    Sharer first = sharerOf(annas, anna);
    ForkedProcess elsewhere([](Channel& test) {
        ASSERT_EQ(::unshare(CLONE_NEWIPC), 0);
        expectFound({annas});
        {
            Sharer second = sharerOf(bens, ben);
            expectFound({annas, bens});
            test.send("shared there");
            EXPECT_EQ(test.receive(), "shared here");
            expectFound({annas, bens, later});
            insertAnything();
            expectFound({annas, bens, later});
            test.send("inserted there");
            EXPECT_EQ(test.receive(), "withdrawn here");
            expectFound({annas, bens});
            second.end();
        }
        expectFound({annas});
    });
    ASSERT_EQ(elsewhere.channel().receive(), "shared there");
    expectFound({annas, bens});
    {
        Sharer third = sharerOf(later, anna);
        expectFound({annas, bens, later});
        elsewhere.channel().send("shared here");
        EXPECT_EQ(elsewhere.channel().receive(), "inserted there");
        expectFound({annas, bens, later});
        third.end();
    }
    elsewhere.channel().send("withdrawn here");
    EXPECT_EQ(elsewhere.waitForExit(), 0);
    expectFound({annas});
    first.end();
    expectNothingLeft();
}
