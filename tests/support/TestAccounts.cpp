#include "tests/support/TestAccounts.h"

#include "foundation/os/Accounts.h"

#include <array>
#include <cerrno>
#include <cstdint>
#include <fstream>
#include <grp.h>
#include <iterator>
#include <linux/capability.h>
#include <pwd.h>
#include <sched.h>
#include <stdexcept>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <system_error>
#include <unistd.h>

namespace tests::accounts {

namespace {

constexpr gid_t firstAddedGroup = 60910;

const passwd& entryOf(const std::string& user) {
    // NOLINTNEXTLINE(concurrency-mt-unsafe): tests prepare their users before they start threads
    const passwd* const entry = ::getpwnam(user.c_str());
    if (entry == nullptr) {
        throw std::runtime_error("There is no user " + user + ".");
    }
    return *entry;
}

void demand(int result, const std::string& what) {
    if (result != 0) {
        throw std::system_error(errno, std::generic_category(), what);
    }
}

} // namespace

bool available() {
    return ::geteuid() == 0;
}

uid_t userId(const std::string& user) {
    return entryOf(user).pw_uid;
}

gid_t groupId(const std::string& group) {
    const auto id = foundation::os::findGroupId(group);
    if (!id) {
        throw std::runtime_error("There is no group " + group + ".");
    }
    return *id;
}

void become(const std::string& user) {
    const passwd& entry = entryOf(user);
    const uid_t userNumber = entry.pw_uid;
    const gid_t groupNumber = entry.pw_gid;
    demand(::initgroups(user.c_str(), groupNumber), "initgroups");
    demand(::setgid(groupNumber), "setgid");
    demand(::setuid(userNumber), "setuid");
}

void becomeMemberOf(const std::vector<std::string>& groups, uid_t user) {
    std::vector<gid_t> ids;
    ids.reserve(groups.size());
    for (const std::string& group : groups) {
        ids.push_back(groupId(group));
    }
    becomeMemberOf(ids, user);
}

void becomeMemberOf(const std::vector<gid_t>& groups, uid_t user) {
    demand(::setgroups(groups.size(), groups.data()), "setgroups");
    demand(::setgid(user), "setgid");
    demand(::setuid(user), "setuid");
}

void becomeRootWithoutIpcRights() {
    demand(::setgroups(0, nullptr), "setgroups");
    __user_cap_header_struct header{_LINUX_CAPABILITY_VERSION_3, 0};
    std::array<__user_cap_data_struct, _LINUX_CAPABILITY_U32S_3> rights{};
    demand(static_cast<int>(::syscall(SYS_capget, &header, rights.data())), "capget");
    constexpr std::uint32_t ipcOwner = 1U << CAP_IPC_OWNER;
    rights.front().effective &= ~ipcOwner;
    rights.front().permitted &= ~ipcOwner;
    demand(static_cast<int>(::syscall(SYS_capset, &header, rights.data())), "capset");
}

std::string contentOfDatabase(const std::string& database) {
    std::ifstream file(database);
    return {std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>()};
}

void replaceDatabase(const std::string& database, const std::string& content, mode_t mode) {
    const std::string path = "/dev/shm/database-" + std::to_string(::getpid());
    std::ofstream(path) << content;
    demand(::chmod(path.c_str(), mode), path);
    demand(::unshare(CLONE_NEWNS), "unshare");
    // That of the tests is itself mounted here, of a file without a name, which nothing covers.
    ::umount2(database.c_str(), MNT_DETACH);
    demand(::mount(path.c_str(), database.c_str(), nullptr, MS_BIND, nullptr), "mount");
    demand(::unlink(path.c_str()), path);
}

void addGroups(const std::vector<std::string>& groups) {
    std::string content = contentOfDatabase(groupDatabase);
    gid_t number = firstAddedGroup;
    for (const std::string& group : groups) {
        content.append(group).append(":x:").append(std::to_string(number++)).append(":anna,ben\n");
    }
    replaceDatabase(groupDatabase, content);
}

} // namespace tests::accounts
