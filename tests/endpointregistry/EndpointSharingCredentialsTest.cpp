#include "endpointregistry/Endpoint.h"

#include "tests/endpointregistry/FoldersTools.h"
#include "tests/endpointregistry/LockedFileTools.h"
#include "tests/endpointregistry/SharingTools.h"
#include "tests/support/ForkedProcess.h"
#include "tests/support/TestAccounts.h"

#include <algorithm>
#include <filesystem>
#include <gtest/gtest.h>
#include <list>
#include <map>
#include <optional>
#include <string>
#include <sys/types.h>
#include <unistd.h>
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
const DataPair carls("data of", "carl");
const std::string tag = "tag";
const std::string key = "key";

/// Makes the process one of carl's with the rights of his and of the friends' group, as "newgrp" or
/// a service manager hands them out; the user database knows him for no friend.
void becomeCarlAmongFriends() {
    accounts::becomeMemberOf(std::vector{friends}, accounts::userId(carl));
}

/// A process of his that has shared entries with the friends, and keeps them until it ends.
class CarlAmongFriends {
public:
    explicit CarlAmongFriends(const DataPairs& entries)
        : process([&entries](tests::Channel& test) {
            becomeCarlAmongFriends();
            std::list<Endpoint> endpoints;
            for (const DataPair& entry : entries) {
                endpoints.emplace_back(entry, tag, entry.second);
                endpoints.back().addTrustees({friends});
                EXPECT_EQ(endpoints.back().getTrustees(), Trustees{friends});
            }
            test.send("shared");
            test.receive();
        }) {
        process.channel().receive();
    }

    void end() {
        process.channel().send("end");
        EXPECT_EQ(process.waitForExit(), 0);
    }

private:
    tests::ForkedProcess process;
};

/// Everything in the shared folder, with its owner.
std::map<std::string, uid_t> ownersOfAll() {
    std::map<std::string, uid_t> owners;
    for (const auto& item : fs::recursive_directory_iterator("/home/Shared")) {
        owners[item.path()] = tests::statusOf(item.path()).st_uid;
    }
    return owners;
}

class EndpointSharingCredentials : public tests::SharingTest {};

} // namespace

TEST_F(EndpointSharingCredentials, AreEnoughToMakeFoldersAndTablesThatMembersUse) {
    CarlAmongFriends service({carls});
    as(ben, [] { EXPECT_EQ(Endpoint::listFromAllTrustees(), DataPairs{carls}); });
    service.end();
    const auto made = ownersOfAll();
    EXPECT_TRUE(made.contains(fs::path(tests::recordFolder(friends)).parent_path()));
    Sharer publisher(anna, annas, tag, key, {friends});
    for (const std::string& user : {anna, ben}) {
        as(user, [] {
            EXPECT_EQ(Endpoint::listFromAllTrustees(), DataPairs{annas});
            EXPECT_EQ(Endpoint::list({friends}), DataPairs{annas});
        });
    }
    publisher.end();
    as(ben, [] { tests::expectNothingShared(friends); });
    for (const auto& [path, owner] : made) {
        EXPECT_EQ(owner, accounts::userId(carl)) << path;
    }
}

TEST_F(EndpointSharingCredentials, AreEnoughToMakeAFolderBesideThoseThatTheGroupHas) {
    for (const std::string& folder :
         {tests::sharedFolder(tests::tableParent, friends),
          tests::sharedFolder(tests::entryParent, friends), tests::recordFolder(friends)}) {
        startAfresh();
        as(anna, [] {
            Endpoint endpoint(annas, tag, key);
            endpoint.addTrustees({friends});
        });
        fs::remove_all(folder);
        CarlAmongFriends service({carls});
        as(ben, [] { EXPECT_EQ(Endpoint::list({friends}), DataPairs{carls}); });
        service.end();
        EXPECT_EQ(tests::statusOf(fs::path(folder).parent_path()).st_uid, accounts::userId(carl));
        as(ben, [] { tests::expectNothingShared(friends); });
    }
}

TEST_F(EndpointSharingCredentials, AreEnoughToUseWhatMembersMade) {
    Sharer publisher(anna, annas, tag, key, {friends});
    EXPECT_EQ(tests::runInChild([] {
                  becomeCarlAmongFriends();
                  EXPECT_EQ(Endpoint::list({friends}), DataPairs{annas});
                  EXPECT_EQ(Endpoint::listFromAllTrustees(), DataPairs{annas});
                  EXPECT_EQ(Endpoint::find(tag, key, {friends}), annas);
              }),
              0);
    publisher.end();
}

TEST_F(EndpointSharingCredentials, AreEnoughToShareOverAndOverAgain) {
    constexpr int times = 25;
    for (const bool isFirst : {true, false}) {
        startAfresh();
        std::optional<Sharer> publisher;
        if (!isFirst) {
            publisher.emplace(anna, annas, tag, key, Trustees{friends});
        }
        DataPairs all;
        for (int number = 0; number < times; ++number) {
            all.emplace_back("data of", "carl " + std::to_string(number));
        }
        CarlAmongFriends service(all);
        as(ben, [&all] {
            for (const DataPair& entry : all) {
                EXPECT_EQ(Endpoint::find(tag, entry.second, {friends}), entry);
            }
            EXPECT_EQ(tests::rowsOf(friends).size(), tests::sharedEntries(friends).size());
        });
        if (!isFirst) {
            all.push_back(annas);
        }
        std::sort(all.begin(), all.end());
        as(ben, [&all] { EXPECT_EQ(Endpoint::list({friends}), all); });
        service.end();
        if (publisher) {
            publisher->end();
        }
        as(ben, [] { tests::expectNothingShared(friends); });
    }
}

TEST_F(EndpointSharingCredentials, AreEnoughForManyUsersThatComeOnceEach) {
    constexpr uid_t firstUser = 61'000;
    constexpr uid_t users = 40;
    for (uid_t number = 0; number < users; ++number) {
        EXPECT_EQ(tests::runInChild([number] {
                      accounts::becomeMemberOf(std::vector{friends}, firstUser + number);
                      const DataPair own("data of", std::to_string(number));
                      Endpoint endpoint(own, tag, key);
                      endpoint.addTrustees({friends});
                      EXPECT_EQ(Endpoint::list({friends}), DataPairs{own});
                      endpoint.removeTrustees({friends});
                      tests::expectNothingShared(friends);
                  }),
                  0)
            << number;
    }
    Sharer publisher(anna, annas, tag, key, {friends});
    as(ben, [] { EXPECT_EQ(Endpoint::list({friends}), DataPairs{annas}); });
    publisher.end();
    as(ben, [] { tests::expectNothingShared(friends); });
    // The one that each made last cannot be removed by others; the kernel counts in thousands.
    EXPECT_LE(tests::kernelSegments().size(), users + 2);
}

TEST_F(EndpointSharingCredentials, RootWithoutRightsFindsWhatLivesAndLeavesTheDeadToMembers) {
    const auto asRootWithoutRights = [](const DataPairs& expected) {
        EXPECT_EQ(tests::runInChild([&] {
                      accounts::becomeRootWithoutIpcRights();
                      EXPECT_EQ(Endpoint::list({friends}), expected);
                      EXPECT_EQ(Endpoint::find(tag, key, {friends}), annas);
                  }),
                  0);
    };
    Sharer publisher(anna, annas, tag, key, {friends});
    Sharer killed(ben, carls, tag, "another key", {friends});
    asRootWithoutRights({annas, carls});
    killed.kill();
    asRootWithoutRights({annas});
    // Without its file, nobody would look for its row.
    EXPECT_EQ(tests::sharedEntries(friends).size(), 2U);
    as(ben, [] {
        EXPECT_EQ(Endpoint::list({friends}), DataPairs{annas});
        EXPECT_EQ(tests::rowsOf(friends).size(), 1U);
    });
    EXPECT_EQ(tests::sharedEntries(friends).size(), 1U);
    publisher.end();
    as(ben, [] { tests::expectNothingShared(friends); });
}
