#include "endpointregistry/Endpoint.h"

#include "tests/endpointregistry/FoldersTools.h"
#include "tests/endpointregistry/LockedFileTools.h"
#include "tests/endpointregistry/SharingTools.h"
#include "tests/support/ForkedProcess.h"
#include "tests/support/TestAccounts.h"

#include <cstddef>
#include <filesystem>
#include <functional>
#include <gtest/gtest.h>
#include <map>
#include <stdexcept>
#include <string>
#include <sys/stat.h>
#include <sys/types.h>
#include <unistd.h>
#include <utility>
#include <vector>

using namespace agent::spf::endpointregistry;
using tests::as;
using tests::DataPair;
using tests::DataPairs;
using tests::Sharer;
using tests::Trustees;

namespace {

namespace accounts = tests::accounts;
namespace fs = std::filesystem;
using accounts::anna;
using accounts::ben;
using accounts::carl;
using accounts::friends;

const DataPair annas("data of", "anna");
const DataPair bens("data of", "ben");
const std::string tag = "tag";
const std::string key = "key";

/// Runs the body in a child, as root, whose databases the body may change.
void onAnotherMachine(const std::function<void()>& body) {
    EXPECT_EQ(tests::runInChild(body), 0);
}

/// The text without the lines that begin like this.
std::string withoutLinesOf(const std::string& name, const std::string& text) {
    std::string rest;
    for (std::size_t start = 0; start < text.size();) {
        const std::size_t end = text.find('\n', start) + 1;
        const std::string line = text.substr(start, end - start);
        rest += line.starts_with(name + ":") ? "" : line;
        start = end;
    }
    return rest;
}

std::string replaced(std::string text, const std::string& what, const std::string& by) {
    const std::size_t at = text.find(what);
    if (at == std::string::npos) {
        throw std::runtime_error("nowhere: " + what);
    }
    return text.replace(at, what.size(), by);
}

/// anna has left the friends.
void letAnnaLeave() {
    accounts::replaceDatabase(accounts::groupDatabase,
                              replaced(accounts::contentOfDatabase(accounts::groupDatabase),
                                       "friends:x:60804:anna,ben", "friends:x:60804:ben"));
}

/// There is no anna any more.
void deleteAnna() {
    letAnnaLeave();
    accounts::replaceDatabase(
        accounts::userDatabase,
        withoutLinesOf(anna, accounts::contentOfDatabase(accounts::userDatabase)));
    accounts::replaceDatabase(
        accounts::groupDatabase,
        withoutLinesOf(anna, accounts::contentOfDatabase(accounts::groupDatabase)));
}

/// Only root can read the user database.
void closeUserDatabase() {
    accounts::replaceDatabase(accounts::userDatabase,
                              accounts::contentOfDatabase(accounts::userDatabase), 0600);
}

/// Everything of the group's, with what it is known by; entries come and go.
std::map<std::string, std::pair<ino_t, uid_t>> everythingLasting() {
    std::map<std::string, std::pair<ino_t, uid_t>> all;
    for (const auto& item : fs::recursive_directory_iterator("/home/Shared")) {
        const struct stat status = tests::statusOf(item.path());
        const bool isEntry = item.path().filename().string().starts_with("qvER");
        if (!isEntry && !item.path().string().starts_with(tests::recordFolder(friends))) {
            all[item.path()] = {status.st_ino, status.st_uid};
        }
    }
    return all;
}

/// Expects that ben can go on, with an entry of anna's that is there or not, and that he makes
/// nothing a second time.
void expectBenGoesOn(const DataPairs& others) {
    const auto before = everythingLasting();
    const uid_t user = accounts::userId(ben);
    EXPECT_EQ(tests::runInChild([&] {
                  accounts::becomeMemberOf(std::vector{friends}, user);
                  EXPECT_EQ(Endpoint::list({friends}), others);
                  EXPECT_EQ(Endpoint::listFromAllTrustees(), others);
                  Endpoint endpoint(bens, tag, "ben's key");
                  endpoint.addTrustees({friends});
                  DataPairs all = others;
                  all.push_back(bens);
                  EXPECT_EQ(Endpoint::list({friends}), all);
                  EXPECT_EQ(tests::rowsOf(friends).size(), all.size());
                  EXPECT_EQ(Endpoint::find(tag, "ben's key", {friends}), bens);
                  endpoint.removeTrustees({friends});
                  EXPECT_EQ(Endpoint::list({friends}), others);
              }),
              0);
    EXPECT_EQ(everythingLasting(), before);
}

class EndpointSharingMembership : public tests::SharingTest {};

} // namespace

TEST_F(EndpointSharingMembership, ThatEndsLeavesWhatTheMemberMadeGood) {
    for (const auto& end : {letAnnaLeave, deleteAnna}) {
        startAfresh();
        // Folders, lock and table are anna's.
        Sharer publisher(anna, annas, tag, key, {friends});
        onAnotherMachine([&end] {
            end();
            expectBenGoesOn({annas});
        });
        publisher.remove({friends});
        onAnotherMachine([&end] {
            end();
            expectBenGoesOn({});
        });
        publisher.add({friends});
        publisher.kill();
        onAnotherMachine([&end] {
            end();
            expectBenGoesOn({});
        });
        EXPECT_EQ(tests::sharedEntries(friends), tests::Names());
    }
}

TEST_F(EndpointSharingMembership, ThatEndedLetsNobodyInWhoIsOut) {
    Sharer publisher(anna, annas, tag, key, {friends});
    onAnotherMachine([] {
        letAnnaLeave();
        as(anna, [] {
            EXPECT_EQ(Endpoint::listFromAllTrustees(), DataPairs{annas});
            EXPECT_EQ(Endpoint::filterFromAllTrustees(tag), Endpoint::filter(tag));
            Endpoint endpoint(bens, tag, "another key");
            EXPECT_THROW(endpoint.addTrustees({friends}), std::invalid_argument);
        });
    });
    publisher.end();
}

TEST_F(EndpointSharingMembership, IsNotAskedForSoThatAnUnreadableUserDatabaseHidesNothing) {
    Sharer publisher(anna, annas, tag, key, {friends});
    onAnotherMachine([] {
        const uid_t user = accounts::userId(ben);
        closeUserDatabase();
        EXPECT_EQ(tests::runInChild([user] {
                      accounts::becomeMemberOf(std::vector{friends}, user);
                      EXPECT_NE(::access(accounts::userDatabase.c_str(), R_OK), 0);
                      EXPECT_EQ(Endpoint::find(tag, key, {friends}), annas);
                  }),
                  0);
        expectBenGoesOn({annas});
    });
    publisher.end();
}

TEST_F(EndpointSharingMembership, IsNotAskedForByTheFirstToShareEither) {
    onAnotherMachine([] {
        const uid_t annasId = accounts::userId(anna);
        closeUserDatabase();
        EXPECT_EQ(tests::runInChild([annasId] {
                      accounts::becomeMemberOf(std::vector{friends}, annasId);
                      Endpoint endpoint(annas, tag, key);
                      endpoint.addTrustees({friends});
                      EXPECT_EQ(Endpoint::list({friends}), DataPairs{annas});
                  }),
                  0);
    });
    as(ben, [] { EXPECT_EQ(Endpoint::list({friends}), DataPairs()); });
    expectBenGoesOn({});
}

TEST_F(EndpointSharingMembership, AWithdrawalLeavesNoTracesWhereTheDatabasesCannotBeAsked) {
    const auto withdrawals = {
        +[](Sharer& publisher) { publisher.remove({friends}); },
        +[](Sharer& publisher) { publisher.end(); },
    };
    for (const auto& withdraw : withdrawals) {
        for (const std::string& database : {accounts::groupDatabase, accounts::userDatabase}) {
            SCOPED_TRACE(database);
            onAnotherMachine([&] {
                accounts::replaceDatabase(database, accounts::contentOfDatabase(database));
                Sharer publisher(anna, annas, tag, key, {friends});
                ASSERT_EQ(::chmod(database.c_str(), 0600), 0);
                withdraw(publisher);
                EXPECT_EQ(tests::sharedEntries(friends), tests::Names());
                ASSERT_EQ(::chmod(database.c_str(), 0644), 0);
                as(ben, [] { tests::expectNothingShared(friends); });
            });
        }
    }
}

TEST_F(EndpointSharingMembership, OfAGroupThatCannotBeNamedMakesNothingASecondTime) {
    Sharer publisher(anna, annas, tag, key, {friends});
    const auto before = everythingLasting();
    onAnotherMachine([] {
        const uid_t user = accounts::userId(ben);
        const gid_t group = accounts::groupId(friends);
        accounts::replaceDatabase(accounts::groupDatabase,
                                  accounts::contentOfDatabase(accounts::groupDatabase), 0600);
        EXPECT_EQ(tests::runInChild([user, group] {
                      accounts::becomeMemberOf(std::vector<gid_t>{group}, user);
                      EXPECT_ANY_THROW(Endpoint::list({friends}));
                      EXPECT_ANY_THROW(Endpoint::find(tag, key, {friends}));
                      EXPECT_THROW(Endpoint::listFromAllTrustees(), std::runtime_error);
                      EXPECT_THROW(Endpoint::findFromAllTrustees(tag, key), std::runtime_error);
                      Endpoint endpoint(bens, tag, "ben's key");
                      EXPECT_ANY_THROW(endpoint.addTrustees({friends}));
                      EXPECT_EQ(endpoint.getTrustees(), Trustees());
                  }),
                  0);
    });
    EXPECT_EQ(everythingLasting(), before);
    expectBenGoesOn({annas});
    publisher.end();
}

TEST_F(EndpointSharingMembership, IsStillTrustedAfterAnAdministratorLetEverybodyRead) {
    Sharer publisher(anna, annas, tag, key, {friends});
    // As "chmod -R a+rX" does.
    for (const auto& item : fs::recursive_directory_iterator("/home/Shared")) {
        const mode_t mode = tests::modeOf(item.path());
        const bool isEntered = item.is_directory() || (mode & 0111U) != 0;
        ASSERT_EQ(::chmod(item.path().c_str(), mode | (isEntered ? 0555U : 0444U)), 0);
    }
    EXPECT_EQ(tests::modeOf(tests::sharedFolder(tests::entryParent, friends)), 0775U);
    EXPECT_EQ(tests::modeOf(tests::tableLock(friends)), 0575U);
    as(ben, [] { EXPECT_EQ(tests::rowsOf(friends).size(), 1U); });
    expectBenGoesOn({annas});
    publisher.remove({friends});
    expectBenGoesOn({});
    publisher.add({friends});
    expectBenGoesOn({annas});
    publisher.kill();
    expectBenGoesOn({});
    EXPECT_EQ(tests::sharedEntries(friends), tests::Names());
}

TEST_F(EndpointSharingMembership, IsAskedForOnlyBelowAFolderThatMayHandItsGroupDown) {
    onAnotherMachine([] {
        // Both are in anna's primary group, which the levels above have.
        accounts::replaceDatabase(accounts::groupDatabase,
                                  replaced(accounts::contentOfDatabase(accounts::groupDatabase),
                                           "anna:x:60801:", "anna:x:60801:ben"));
        for (const std::string& parent :
             {tests::entryParent, tests::tableParent, tests::segmentParent}) {
            const std::string level = tests::sharedTop + "/" + parent;
            fs::create_directories(level);
            fs::permissions(tests::sharedTop, fs::perms::all);
            fs::permissions(level, fs::perms::all);
            ASSERT_EQ(::chown(level.c_str(), 0, accounts::groupId(anna)), 0);
        }
        Sharer publisher(anna, annas, tag, key, {anna});
        as(ben, [] {
            EXPECT_EQ(Endpoint::list({anna}), DataPairs{annas});
            Endpoint endpoint(bens, tag, key);
            endpoint.addTrustees({anna});
            EXPECT_EQ(Endpoint::list({anna}), (DataPairs{annas, bens}));
        });
        publisher.end();
        // A member's, by supplementary group.
        for (const std::string& parent : {tests::entryParent, tests::tableParent}) {
            fs::remove_all(tests::sharedFolder(parent, anna));
        }
        fs::remove_all(tests::recordFolder(anna));
        Sharer second(ben, bens, tag, key, {anna});
        as(anna, [] { EXPECT_EQ(Endpoint::list({anna}), DataPairs{bens}); });
        second.end();
    });
}

TEST_F(EndpointSharingMembership, AWithdrawalDoesNotAskWhoseTheFoldersAreThatItHasUsed) {
    onAnotherMachine([] {
        accounts::replaceDatabase(accounts::groupDatabase,
                                  accounts::contentOfDatabase(accounts::groupDatabase));
        tests::makeFolder(tests::sharedTop, 0777);
        for (const std::string& parent :
             {tests::entryParent, tests::tableParent, tests::segmentParent}) {
            const std::string level = fs::path(tests::sharedTop) / parent;
            tests::makeFolder(level, 0777);
            ASSERT_EQ(::chown(level.c_str(), 0, accounts::groupId(friends)), 0);
        }
        tests::useShortly(anna, friends);
        // Each is another member's.
        fs::remove_all(tests::recordFolder(friends));
        tests::useShortly(ben, friends);
        ASSERT_NE(tests::statusOf(tests::recordFolder(friends)).st_uid,
                  tests::statusOf(tests::sharedFolder(tests::tableParent, friends)).st_uid);
        Sharer publisher(anna, annas, tag, key, {friends});
        for (const std::string& database : {accounts::groupDatabase, accounts::userDatabase}) {
            ASSERT_EQ(::chmod(database.c_str(), 0600), 0);
        }
        publisher.remove({friends});
        EXPECT_EQ(tests::sharedEntries(friends), tests::Names());
        for (const std::string& database : {accounts::groupDatabase, accounts::userDatabase}) {
            ASSERT_EQ(::chmod(database.c_str(), 0644), 0);
        }
        as(ben, [] { tests::expectNothingShared(friends); });
        publisher.end();
    });
}

TEST_F(EndpointSharingMembership, IsWhatAStrangersFolderLacksThatGotTheGroupHandedDown) {
    for (const std::string& parent :
         {tests::entryParent, tests::tableParent, tests::segmentParent}) {
        startAfresh();
        const std::string level = fs::path(tests::sharedTop) / parent;
        const std::string folder = parent == tests::segmentParent
                                       ? tests::recordFolder(friends)
                                       : tests::sharedFolder(parent, friends);
        tests::makeFolder(tests::sharedTop, 0777);
        tests::makeFolder(level, 0777);
        ASSERT_EQ(::chown(level.c_str(), 0, accounts::groupId(friends)), 0);
        ASSERT_EQ(::chmod(level.c_str(), 02777), 0);
        as(carl, [&folder] { tests::makeFolder(folder, 0770); });
        ASSERT_EQ(tests::statusOf(fs::path(folder).parent_path()).st_gid,
                  accounts::groupId(friends));
        as(anna, [] {
            Endpoint endpoint(annas, tag, key);
            EXPECT_THROW(endpoint.addTrustees({friends}), std::runtime_error);
        });
        as(carl, [&folder] {
            EXPECT_TRUE(fs::is_empty(folder));
            fs::remove(folder);
        });
        Sharer publisher(anna, annas, tag, key, {friends});
        as(ben, [] { EXPECT_EQ(Endpoint::list({friends}), DataPairs{annas}); });
        publisher.end();
    }
}
