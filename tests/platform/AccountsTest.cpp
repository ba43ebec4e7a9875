#include "foundation/os/Accounts.h"

#include "tests/support/ForkedProcess.h"
#include "tests/support/Sanitizers.h"
#include "tests/support/TestAccounts.h"

#include <cerrno>
#include <functional>
#include <grp.h>
#include <gtest/gtest.h>
#include <set>
#include <string>
#include <sys/resource.h>
#include <unistd.h>
#include <vector>

namespace {

namespace accounts = tests::accounts;
using accounts::groupId;
using accounts::userId;
using foundation::os::findOwnGroupNames;
using foundation::os::isMember;

constexpr uid_t noUser = 60899;
constexpr gid_t noGroup = 60898;
using Names = std::set<std::string>;

/// Runs `body` in a child that can open nothing any more.
void withoutDescriptors(const std::function<void()>& body) {
    EXPECT_EQ(tests::runInChild([&] {
                  const rlimit none{0, 0};
                  EXPECT_EQ(::setrlimit(RLIMIT_NOFILE, &none), 0);
                  body();
              }),
              0);
}

class Accounts : public testing::Test {
protected:
    void SetUp() override {
        if (!accounts::available()) {
            GTEST_SKIP() << accounts::whyNot;
        }
    }
};

TEST_F(Accounts, HaveMembersByPrimaryGroup) {
    EXPECT_EQ(isMember(userId("anna"), groupId("anna")), true);
    EXPECT_EQ(isMember(userId("carl"), groupId("carl")), true);
    EXPECT_EQ(isMember(0, 0), true);
}

TEST_F(Accounts, HaveMembersThatTheGroupLists) {
    EXPECT_EQ(isMember(userId("anna"), groupId("friends")), true);
    EXPECT_EQ(isMember(userId("ben"), groupId("friends")), true);
}

TEST_F(Accounts, HaveNoMembersBeside) {
    EXPECT_EQ(isMember(userId("carl"), groupId("friends")), false);
    EXPECT_EQ(isMember(userId("ben"), groupId("anna")), false);
    EXPECT_EQ(isMember(0, groupId("friends")), false);
}

TEST_F(Accounts, HaveNoUnknownMembers) {
    EXPECT_EQ(isMember(noUser, groupId("friends")), false);
    EXPECT_EQ(isMember(static_cast<uid_t>(-1), groupId("friends")), false);
    EXPECT_EQ(isMember(userId("anna"), noGroup), false);
    EXPECT_EQ(isMember(noUser, noGroup), false);
}

TEST_F(Accounts, TellTheSameToEveryUserWhateverGroupsItHasTaken) {
    const gid_t friends = groupId("friends");
    const uid_t anna = userId("anna");
    const uid_t carl = userId("carl");
    EXPECT_EQ(tests::runInChild([&] {
                  // The process is in the group, its user is not.
                  EXPECT_EQ(::setgroups(1, &friends), 0);
                  EXPECT_EQ(::setgid(friends), 0);
                  EXPECT_EQ(::setuid(carl), 0);
                  EXPECT_EQ(isMember(carl, friends), false);
                  EXPECT_EQ(isMember(anna, friends), true);
              }),
              0);
}

TEST_F(Accounts, DoNotSayNoWhenTheyCannotBeAsked) {
    if (!tests::canDoWithoutDescriptors) {
        GTEST_SKIP() << tests::whyDescriptorsAreNeeded;
    }
    const uid_t anna = userId("anna");
    const uid_t carl = userId("carl");
    const gid_t friends = groupId("friends");
    withoutDescriptors([&] {
        for (const uid_t user : {anna, carl, noUser}) {
            errno = 0;
            EXPECT_EQ(isMember(user, friends), std::nullopt) << user;
            EXPECT_EQ(errno, EMFILE) << user;
        }
    });
}

TEST_F(Accounts, NameTheGroupsOfTheirUser) {
    for (const auto& [user, groups] :
         {std::pair<std::string, Names>{"anna", {"anna", "family", "friends"}},
          std::pair<std::string, Names>{"ben", {"ben", "family", "friends"}},
          std::pair<std::string, Names>{"carl", {"carl"}}}) {
        EXPECT_EQ(tests::runInChild([&user = user, &groups = groups] {
                      accounts::become(user);
                      EXPECT_EQ(findOwnGroupNames(), groups);
                  }),
                  0);
    }
}

TEST_F(Accounts, NameTheGroupsThatAProcessHasNow) {
    EXPECT_EQ(tests::runInChild([] {
                  const std::vector<gid_t> groups{groupId("friends"), noGroup, groupId("carl"),
                                                  groupId("friends")};
                  EXPECT_EQ(::setgroups(groups.size(), groups.data()), 0);
                  EXPECT_EQ(findOwnGroupNames(), Names({"carl", "friends"}));
                  EXPECT_EQ(::setgroups(0, nullptr), 0);
                  EXPECT_EQ(findOwnGroupNames(), Names());
              }),
              0);
}

TEST_F(Accounts, DoNotLeaveOutGroupsWhoseNamesTheyCannotAskFor) {
    if (!tests::canDoWithoutDescriptors) {
        GTEST_SKIP() << tests::whyDescriptorsAreNeeded;
    }
    const gid_t friends = groupId("friends");
    withoutDescriptors([&] {
        EXPECT_EQ(::setgroups(1, &friends), 0);
        errno = 0;
        EXPECT_EQ(findOwnGroupNames(), std::nullopt);
        EXPECT_EQ(errno, EMFILE);
    });
}

} // namespace
