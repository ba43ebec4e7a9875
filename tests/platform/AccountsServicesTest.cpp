#include "foundation/os/Accounts.h"

#include "tests/support/ForkedProcess.h"
#include "tests/support/Sanitizers.h"
#include "tests/support/TestAccounts.h"

#include <cerrno>
#include <dlfcn.h>
#include <fcntl.h>
#include <fstream>
#include <functional>
#include <gtest/gtest.h>
#include <optional>
#include <sched.h>
#include <string>
#include <sys/mount.h>
#include <sys/resource.h>
#include <system_error>
#include <unistd.h>

namespace {

namespace accounts = tests::accounts;
using foundation::os::findGroupId;
using foundation::os::findGroupName;
using foundation::os::findUserName;
using foundation::os::isMember;

constexpr uid_t noUser = 60899;
constexpr gid_t noGroup = 60898;

void demand(int result, const std::string& what) {
    if (result != 0) {
        throw std::system_error(errno, std::generic_category(), what);
    }
}

/// Has the calling child ask this second service where the files have no answer.
void useSecondService(const std::string& service) {
    const std::string path = "/dev/shm/nsswitch.conf";
    std::ofstream(path) << "passwd: files " << service << "\ngroup: files " << service << '\n';
    demand(::unshare(CLONE_NEWNS), "unshare");
    ::umount2("/etc/nsswitch.conf", MNT_DETACH);
    demand(::mount(path.c_str(), "/etc/nsswitch.conf", nullptr, MS_BIND, nullptr), "mount");
    demand(::unlink(path.c_str()), path);
}

/// Takes all descriptors that are left.
void exhaustDescriptors() {
    constexpr rlim_t few = 64;
    const rlimit limit{few, few};
    demand(::setrlimit(RLIMIT_NOFILE, &limit), "setrlimit");
    while (::open("/dev/null", O_RDONLY | O_CLOEXEC) != -1) {
    }
}

/// A user database of two services, of which the second says "no such entry" whatever happens.
class AccountsServices : public testing::Test {
protected:
    static constexpr const char* service = "systemd";

    void SetUp() override {
        if (!accounts::available()) {
            GTEST_SKIP() << accounts::whyNot;
        }
        if (!tests::canDoWithoutDescriptors) {
            GTEST_SKIP() << tests::whyDescriptorsAreNeeded;
        }
        if (::dlopen("libnss_systemd.so.2", RTLD_LAZY) == nullptr) {
            GTEST_SKIP() << "needs the name service of systemd";
        }
    }

    /// Runs the body in a child that has asked both services, and can open nothing any more.
    static void withoutDescriptors(const std::function<void()>& body) {
        EXPECT_EQ(tests::runInChild([&] {
                      useSecondService(service);
                      EXPECT_EQ(findUserName(noUser), std::nullopt);
                      EXPECT_EQ(findGroupName(noGroup), std::nullopt);
                      EXPECT_EQ(findGroupId("no group"), std::nullopt);
                      EXPECT_TRUE(foundation::os::saysNoSuchEntry(errno));
                      exhaustDescriptors();
                      body();
                  }),
                  0);
    }
};

TEST_F(AccountsServices, DoNotSayNoToAMemberWhenTheFirstCannotBeAsked) {
    const uid_t anna = accounts::userId("anna");
    const gid_t friends = accounts::groupId("friends");
    const gid_t primary = accounts::groupId("anna");
    withoutDescriptors([&] {
        for (const gid_t group : {friends, primary}) {
            errno = 0;
            EXPECT_EQ(isMember(anna, group), std::nullopt) << group;
            EXPECT_EQ(errno, EMFILE) << group;
        }
    });
}

TEST_F(AccountsServices, DoNotMissAGroupWhenTheFirstCannotBeAsked) {
    const gid_t friends = accounts::groupId("friends");
    withoutDescriptors([&] {
        errno = 0;
        EXPECT_EQ(findGroupId("friends"), std::nullopt);
        EXPECT_EQ(errno, EMFILE);
        errno = 0;
        EXPECT_EQ(findGroupName(friends), std::nullopt);
        EXPECT_EQ(errno, EMFILE);
        errno = 0;
        EXPECT_EQ(findUserName(noUser), std::nullopt);
        EXPECT_EQ(errno, EMFILE);
    });
}

} // namespace
