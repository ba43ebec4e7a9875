#include "tests/support/SmallSharedMemory.h"

#include "tests/support/UserNamespace.h"

#include <cerrno>
#include <sched.h>
#include <string>
#include <sys/mount.h>
#include <system_error>
#include <unistd.h>

namespace tests {

namespace {

void demand(bool isDone, const std::string& what) {
    if (!isDone) {
        throw std::system_error(errno, std::generic_category(), what);
    }
}

/// Enters a mount namespace; an ordinary user may do so only in a user namespace of its own.
void enterMountNamespace() {
    const uid_t user = ::geteuid();
    const gid_t group = ::getegid();
    if (user == 0) {
        demand(::unshare(CLONE_NEWNS) == 0, "unshare");
    } else {
        demand(::unshare(CLONE_NEWUSER | CLONE_NEWNS) == 0, "unshare");
        mapOnly(user, group);
    }
}

} // namespace

bool canLimitSharedMemory() {
    return ::geteuid() == 0 || ::access("/proc/self/uid_map", W_OK) == 0;
}

void limitSharedMemoryTo(std::size_t bytes) {
    enterMountNamespace();
    const std::string options = "mode=1777,size=" + std::to_string(bytes);
    demand(::mount("tmpfs", "/dev/shm", "tmpfs", MS_NOSUID | MS_NODEV, options.c_str()) == 0,
           "mount a small tmpfs on /dev/shm");
}

} // namespace tests
