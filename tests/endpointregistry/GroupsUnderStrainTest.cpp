#include "endpointregistry/Groups.h"

#include "tests/endpointregistry/FoldersRefusedCalls.h"
#include "tests/endpointregistry/FoldersTools.h"
#include "tests/endpointregistry/LoggersReportedFailure.h"
#include "tests/support/ForkedProcess.h"
#include "tests/support/TestAccounts.h"

#include <cerrno>
#include <fstream>
#include <grp.h>
#include <gtest/gtest.h>
#include <sched.h>
#include <set>
#include <stdexcept>
#include <string>
#include <sys/mount.h>
#include <sys/syscall.h>
#include <system_error>
#include <unistd.h>
#include <utility>
#include <vector>

using namespace agent::spf::endpointregistry;
namespace accounts = tests::accounts;

namespace {

constexpr std::size_t kibibyte = 1024;
constexpr std::size_t mebibyte = kibibyte * kibibyte;
constexpr gid_t crowdId = 60900;

void demand(int result, const std::string& what) {
    if (result != 0) {
        throw std::system_error(errno, std::generic_category(), what);
    }
}

/// Gives the calling child a group database of its own: that of the tests, and a group "crowd"
/// whose line is of this length.
void addCrowd(const tests::ScratchFolder& scratch, std::size_t lineLength) {
    const std::string path = scratch / "group";
    const std::string start = "crowd:x:" + std::to_string(crowdId) + ":";
    std::ofstream(path) << std::ifstream("/etc/group").rdbuf() << start
                        << std::string(lineLength - start.size(), 'm') << '\n';
    demand(::unshare(CLONE_NEWNS), "unshare");
    // That of the tests is itself mounted here, of a file without a name, which nothing covers.
    ::umount2("/etc/group", MNT_DETACH);
    demand(::mount(path.c_str(), "/etc/group", nullptr, MS_BIND, nullptr), "mount");
}

std::set<std::string> groupsBesideACrowdOf(std::size_t lineLength) {
    const tests::ScratchFolder scratch;
    tests::ForkedProcess child([&](tests::Channel& parent) {
        addCrowd(scratch, lineLength);
        const std::vector<gid_t> ids{crowdId, accounts::groupId(accounts::friends)};
        demand(::setgroups(ids.size(), ids.data()), "setgroups");
        for (const std::string& group : getCurrentUserGroups()) {
            parent.send(group);
        }
        parent.send("");
    });
    std::set<std::string> groups;
    for (std::string group = child.channel().receive(); !group.empty();
         group = child.channel().receive()) {
        groups.insert(group);
    }
    EXPECT_EQ(child.waitForExit(), 0);
    return groups;
}

class GroupsUnderStrain : public testing::Test {
protected:
    void SetUp() override {
        if (!accounts::available()) {
            GTEST_SKIP() << accounts::whyNot;
        }
    }
};

const std::set<std::string> bothGroups{"crowd", "friends"};

} // namespace

TEST_F(GroupsUnderStrain, FindAGroupThatNeedsLittleRoom) {
    EXPECT_EQ(groupsBesideACrowdOf(100), bothGroups);
}

TEST_F(GroupsUnderStrain, FindAGroupThatNeedsMoreThanAKibibyte) {
    EXPECT_EQ(groupsBesideACrowdOf(2 * kibibyte), bothGroups);
}

TEST_F(GroupsUnderStrain, FindAGroupThatNeedsAWholeMebibyte) {
    EXPECT_EQ(groupsBesideACrowdOf(mebibyte - kibibyte), bothGroups);
}

TEST_F(GroupsUnderStrain, LeaveOutAGroupThatNeedsMoreThanAMebibyte) {
    EXPECT_EQ(groupsBesideACrowdOf(mebibyte + 1), std::set<std::string>{"friends"});
}

TEST(GroupsRefused, AreALengthErrorWhereNotEvenTheirNumberIsTold) {
    EXPECT_EQ(tests::runInChild([] {
                  tests::refuseCalls({SYS_getgroups}, EPERM);
                  tests::expectLogged(
                      [] { EXPECT_THROW(getCurrentUserGroups(), std::length_error); }, {});
              }),
              0);
}

TEST(GroupsRefused, AreReportedWhereOnlyTheirNumberIsTold) {
    EXPECT_EQ(tests::runInChild([] {
                  tests::refuseCalls({SYS_getgroups},
                                     [isFirst = true](const tests::PendingCall&) mutable {
                                         return std::exchange(isFirst, false) ? 0 : EIO;
                                     });
                  tests::expectReported<std::runtime_error>(
                      [] { getCurrentUserGroups(); },
                      "System error: Failed to get current user groups",
                      "getCurrentUserGroups(): Failed to get user group ids. (Error 5)");
              }),
              0);
}

TEST(GroupsRefused, AreNotAskedForWhereThereIsNoTrusteeToCheck) {
    EXPECT_EQ(tests::runInChild([] {
                  tests::refuseCalls({SYS_getgroups}, EPERM);
                  EXPECT_EQ(checkTrustee(""), "");
              }),
              0);
}

TEST(GroupsRefused, MakeTheCheckOfATrusteeFailLikeTheirLookup) {
    EXPECT_EQ(tests::runInChild([] {
                  tests::refuseCalls({SYS_getgroups}, EPERM);
                  EXPECT_THROW(checkTrustee("friends"), std::length_error);
              }),
              0);
}
