#include "tests/support/TestAccounts.h"

#include "foundation/os/Accounts.h"

#include <cerrno>
#include <grp.h>
#include <pwd.h>
#include <stdexcept>
#include <system_error>
#include <unistd.h>

namespace tests::accounts {

namespace {

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

} // namespace tests::accounts
