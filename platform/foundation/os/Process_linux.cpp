#include "foundation/os/Process.h"

#include "foundation/os/FileDescriptor.h"
#include "foundation/os/RetryOnInterrupt.h"

#include <cerrno>
#include <csignal>
#include <poll.h>
#include <sys/syscall.h>
#include <unistd.h>

namespace foundation::os {

bool processLives(pid_t process) {
    if (process <= 0) {
        return false;
    }
    // A process descriptor becomes readable when the process exits, reaped or not; getpgid and kill
    // go on answering for it. It is opened close-on-exec without being asked to.
    const FileDescriptor handle(static_cast<int>(::syscall(SYS_pidfd_open, process, 0U)));
    if (handle) {
        // Only a plain "yes, it has ended" makes it a dead one.
        pollfd ended{handle.get(), POLLIN, 0};
        return retryOnInterrupt([&] { return ::poll(&ended, 1, 0); }) != 1;
    }
    if (errno == ESRCH || errno == EINVAL) {
        return false;
    }
    // No such call before Linux 5.3, or no descriptor left.
    return ::kill(process, 0) == 0 || errno == EPERM;
}

} // namespace foundation::os
