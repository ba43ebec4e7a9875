#include "endpointregistry/Groups.h"

#include "sharedmemory/SharedMemory.h"
#include "tests/endpointregistry/LoggersReportedFailure.h"
#include "tests/support/ForkedProcess.h"
#include "tests/support/TestAccounts.h"

#include <grp.h>
#include <gtest/gtest.h>
#include <set>
#include <stdexcept>
#include <string>
#include <system_error>
#include <unistd.h>
#include <vector>

using namespace agent::spf::endpointregistry;
namespace accounts = tests::accounts;

namespace {

constexpr gid_t namelessGroup = 54321;
constexpr uid_t namelessUser = 54321;

void setGroups(const std::vector<gid_t>& groups) {
    if (::setgroups(groups.size(), groups.data()) != 0) {
        throw std::system_error(errno, std::generic_category(), "setgroups");
    }
}

std::string refusal(const std::string& trustee, const std::string& user, const std::string& list) {
    return "endpointregistry::checkTrustee: " + trustee +
           " is not among the allowed trustees of user" + user +
           ". \nAllowed trustees list: " + list;
}

class GroupsOfProcess : public testing::Test {
protected:
    void SetUp() override {
        if (!accounts::available()) {
            GTEST_SKIP() << accounts::whyNot;
        }
        anna = accounts::groupId(accounts::anna);
        ben = accounts::groupId(accounts::ben);
        friends = accounts::groupId(accounts::friends);
    }

    gid_t anna = 0;
    gid_t ben = 0;
    gid_t friends = 0;
};

} // namespace

TEST_F(GroupsOfProcess, AreTheNamesOfItsSupplementaryGroups) {
    EXPECT_EQ(tests::runInChild([this] {
                  setGroups({friends, anna});
                  EXPECT_EQ(getCurrentUserGroups(), (std::set<std::string>{"anna", "friends"}));
              }),
              0);
}

TEST_F(GroupsOfProcess, DoNotIncludeThePrimaryGroupUnlessItIsSupplementaryToo) {
    EXPECT_EQ(tests::runInChild([this] {
                  setGroups({friends});
                  ASSERT_EQ(::setgid(anna), 0);
                  EXPECT_EQ(getCurrentUserGroups(), std::set<std::string>{"friends"});
              }),
              0);
}

TEST_F(GroupsOfProcess, AreThoseOfALoggedInUser) {
    EXPECT_EQ(
        tests::runInChild([] {
            accounts::become(accounts::anna);
            EXPECT_EQ(getCurrentUserGroups(), (std::set<std::string>{"anna", "family", "friends"}));
        }),
        0);
}

TEST_F(GroupsOfProcess, AreReadAfreshOnEveryCall) {
    EXPECT_EQ(tests::runInChild([this] {
                  setGroups({anna});
                  EXPECT_EQ(getCurrentUserGroups(), std::set<std::string>{"anna"});
                  setGroups({ben});
                  EXPECT_EQ(getCurrentUserGroups(), std::set<std::string>{"ben"});
              }),
              0);
}

TEST_F(GroupsOfProcess, AreNoneWhereThereAreNoSupplementaryGroups) {
    EXPECT_EQ(tests::runInChild([] {
                  setGroups({});
                  EXPECT_TRUE(getCurrentUserGroups().empty());
              }),
              0);
}

TEST_F(GroupsOfProcess, LeaveOutIdsWithoutAName) {
    EXPECT_EQ(tests::runInChild([this] {
                  setGroups({namelessGroup, friends, namelessGroup + 1});
                  tests::expectLogged(
                      [] { EXPECT_EQ(getCurrentUserGroups(), std::set<std::string>{"friends"}); },
                      {});
              }),
              0);
}

TEST_F(GroupsOfProcess, MayBeMany) {
    EXPECT_EQ(tests::runInChild([this] {
                  std::vector<gid_t> ids(5000, namelessGroup);
                  ids.push_back(ben);
                  ids.push_back(friends);
                  setGroups(ids);
                  EXPECT_EQ(getCurrentUserGroups(), (std::set<std::string>{"ben", "friends"}));
              }),
              0);
}

TEST_F(GroupsOfProcess, AreAcceptedAsTrusteesUnchanged) {
    EXPECT_EQ(tests::runInChild([this] {
                  setGroups({anna, friends});
                  EXPECT_EQ(checkTrustee("friends"), "friends");
                  EXPECT_EQ(checkTrustee("anna"), "anna");
              }),
              0);
}

TEST_F(GroupsOfProcess, AreListedInOrderWhereATrusteeIsRefused) {
    EXPECT_EQ(tests::runInChild([this] {
                  setGroups({friends, ben, anna});
                  tests::expectLogged(
                      [] {
                          tests::expectThrown<std::invalid_argument>(
                              [] { checkTrustee("admin"); },
                              refusal("admin", "root", ", anna, ben, friends"));
                      },
                      {});
              }),
              0);
}

TEST_F(GroupsOfProcess, AreListedWithTheNameOfTheUserWhereATrusteeIsRefused) {
    EXPECT_EQ(tests::runInChild([] {
                  accounts::become(accounts::anna);
                  tests::expectThrown<std::invalid_argument>(
                      [] { checkTrustee("ben"); },
                      refusal("ben", "anna", ", anna, family, friends"));
              }),
              0);
}

TEST_F(GroupsOfProcess, RefuseATrusteeOfOtherLetterCase) {
    EXPECT_EQ(tests::runInChild([this] {
                  setGroups({friends});
                  tests::expectThrown<std::invalid_argument>(
                      [] { checkTrustee("Friends"); }, refusal("Friends", "root", ", friends"));
              }),
              0);
}

TEST_F(GroupsOfProcess, RefuseATrusteeThatOnlyBeginsLikeOne) {
    EXPECT_EQ(tests::runInChild([this] {
                  setGroups({friends});
                  EXPECT_THROW(checkTrustee("friend"), std::invalid_argument);
                  EXPECT_THROW(checkTrustee("friends "), std::invalid_argument);
              }),
              0);
}

TEST_F(GroupsOfProcess, RefuseEveryTrusteeWithAnEmptyListWhereThereAreNone) {
    EXPECT_EQ(tests::runInChild([] {
                  setGroups({});
                  tests::expectThrown<std::invalid_argument>([] { checkTrustee("friends"); },
                                                             refusal("friends", "root", ""));
              }),
              0);
}

TEST_F(GroupsOfProcess, AreNotNeededForTheEmptyTrustee) {
    EXPECT_EQ(tests::runInChild([] {
                  setGroups({});
                  EXPECT_EQ(checkTrustee(""), "");
              }),
              0);
}

TEST(CurrentUserName, IsWhatTheSharedMemoryServiceSays) {
    EXPECT_EQ(getCurrentUserName(), agent::spf::sharedmemory::getCurrentUserName());
    EXPECT_FALSE(getCurrentUserName().empty());
}

TEST(CurrentUserName, FollowsTheUserOfTheProcess) {
    if (!accounts::available()) {
        GTEST_SKIP() << accounts::whyNot;
    }
    EXPECT_EQ(tests::runInChild([] {
                  EXPECT_EQ(getCurrentUserName(), "root");
                  accounts::become(accounts::ben);
                  EXPECT_EQ(getCurrentUserName(), "ben");
              }),
              0);
}

TEST(CurrentUserName, IsTheNumberOfAUserWithoutName) {
    if (!accounts::available()) {
        GTEST_SKIP() << accounts::whyNot;
    }
    EXPECT_EQ(tests::runInChild([] {
                  ASSERT_EQ(::setuid(namelessUser), 0);
                  EXPECT_EQ(getCurrentUserName(), "54321");
              }),
              0);
}

TEST(ContainsAll, IsTrueWithoutParts) {
    EXPECT_TRUE(containsAll("abc", {}));
    EXPECT_TRUE(containsAll("", {}));
}

TEST(ContainsAll, TakesEmptyPartsForContained) {
    EXPECT_TRUE(containsAll("abc", {"", ""}));
    EXPECT_TRUE(containsAll("", {""}));
    EXPECT_FALSE(containsAll("", {"", "a"}));
}

TEST(ContainsAll, IsFalseAsSoonAsOnePartIsMissing) {
    EXPECT_FALSE(containsAll("", {"a"}));
    EXPECT_FALSE(containsAll("abc", {"a", "d"}));
    EXPECT_FALSE(containsAll("abc", {"d", "a"}));
    EXPECT_FALSE(containsAll("abc", {"abcd"}));
    EXPECT_FALSE(containsAll("abc", {"ac"}));
}

TEST(ContainsAll, LetsPartsOverlapAndComeInAnyOrder) {
    EXPECT_TRUE(containsAll("abcabc", {"ca", "bc"}));
    EXPECT_TRUE(containsAll("abc", {"c", "b", "a"}));
    EXPECT_TRUE(containsAll("abc", {"abc", "abc"}));
}

TEST(ContainsAll, TellsLetterCasesApart) {
    EXPECT_FALSE(containsAll("abc", {"B"}));
}

TEST(ContainsAll, ComparesZeroBytesLikeOthers) {
    using namespace std::string_literals;

    EXPECT_TRUE(containsAll("a\0b"s, {"\0b"s}));
    EXPECT_FALSE(containsAll("a\0b"s, {"a\0c"s}));
}
