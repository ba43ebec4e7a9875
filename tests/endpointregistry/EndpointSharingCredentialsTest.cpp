#include "endpointregistry/Endpoint.h"

#include "tests/endpointregistry/LockedFileTools.h"
#include "tests/endpointregistry/SharingTools.h"
#include "tests/support/ForkedProcess.h"
#include "tests/support/TestAccounts.h"

#include <algorithm>
#include <filesystem>
#include <functional>
#include <grp.h>
#include <gtest/gtest.h>
#include <stdexcept>
#include <string>
#include <unistd.h>

using namespace agent::spf::endpointregistry;
using tests::as;
using tests::DataPair;
using tests::DataPairs;
using tests::Names;
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

/// Runs the body as carl with the rights of his and of the friends' group, as "newgrp" or a service
/// manager hands them out; the user database knows him for no friend.
void asCarlAmongFriends(const std::function<void()>& body) {
    const uid_t user = accounts::userId(carl);
    const gid_t own = accounts::groupId(carl);
    const gid_t group = accounts::groupId(friends);
    EXPECT_EQ(tests::runInChild([&] {
                  ASSERT_EQ(::setgroups(1, &group), 0);
                  ASSERT_EQ(::setgid(own), 0);
                  ASSERT_EQ(::setuid(user), 0);
                  body();
              }),
              0);
}

/// Everything in the shared folder but the levels that everybody may add to.
Names sharedItems() {
    const Names levels{tests::sharedTop, tests::sharedTop + "/" + tests::entryParent,
                       tests::sharedTop + "/" + tests::tableParent};
    Names items;
    for (const auto& item : fs::recursive_directory_iterator("/home/Shared")) {
        if (std::find(levels.begin(), levels.end(), item.path()) == levels.end()) {
            items.push_back(item.path());
        }
    }
    return items;
}

class EndpointSharingCredentials : public tests::SharingTest {
protected:
    static void expectRefused() {
        asCarlAmongFriends([] {
            Endpoint endpoint(carls, tag, key);
            EXPECT_THROW(endpoint.addTrustees({friends}), std::runtime_error);
            EXPECT_EQ(endpoint.getTrustees(), Trustees());
            EXPECT_EQ(Endpoint::find(tag, key), carls);
        });
    }
};

} // namespace

TEST_F(EndpointSharingCredentials, AloneMakeNoFoldersForTheGroup) {
    expectRefused();
    EXPECT_EQ(sharedItems(), Names());
    EXPECT_TRUE(tests::kernelSegments().empty());
}

TEST_F(EndpointSharingCredentials, AloneMakeNoFolderBesideTheOneThatTheGroupHas) {
    as(anna, [] {
        Endpoint endpoint(annas, tag, key);
        endpoint.addTrustees({friends});
    });
    fs::remove_all(tests::sharedFolder(tests::tableParent, friends));
    const Names before = sharedItems();
    expectRefused();
    EXPECT_EQ(sharedItems(), before);
}

TEST_F(EndpointSharingCredentials, AloneKeepNoMemberFromSharing) {
    expectRefused();
    Sharer publisher(anna, annas, tag, key, {friends});
    for (const std::string& user : {anna, ben}) {
        as(user, [] {
            EXPECT_EQ(Endpoint::listFromAllTrustees(), DataPairs{annas});
            EXPECT_EQ(Endpoint::list({friends}), DataPairs{annas});
        });
    }
    publisher.end();
    as(ben, [] { tests::expectNothingShared(friends); });
}

TEST_F(EndpointSharingCredentials, AloneAreEnoughToUseWhatMembersMade) {
    Sharer publisher(anna, annas, tag, key, {friends});
    asCarlAmongFriends([] {
        EXPECT_EQ(Endpoint::list({friends}), DataPairs{annas});
        EXPECT_EQ(Endpoint::listFromAllTrustees(), DataPairs{annas});
        EXPECT_EQ(Endpoint::find(tag, key, {friends}), annas);
    });
    publisher.end();
}
