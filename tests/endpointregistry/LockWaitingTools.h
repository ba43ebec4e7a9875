#pragma once

#include "foundation/os/FileDescriptor.h"
#include "foundation/os/RetryOnInterrupt.h"

#include <cerrno>
#include <csignal>
#include <poll.h>
#include <stdexcept>
#include <string>
#include <sys/inotify.h>
#include <sys/types.h>
#include <sys/wait.h>
#include <system_error>
#include <unistd.h>

/// What tests of waiting for a lock have in common.
namespace tests {

/// Stops a child, as a debugger does, and returns when it is stopped.
inline void stop(pid_t child) {
    siginfo_t information{};
    if (::kill(child, SIGSTOP) != 0 || foundation::os::retryOnInterrupt([&] {
                                           return ::waitid(P_PID, static_cast<id_t>(child),
                                                           &information, WSTOPPED | WNOWAIT);
                                       }) != 0) {
        throw std::system_error(errno, std::generic_category(), "stop");
    }
}

/// Whether a child that was stopped has not gone on.
inline bool isStopped(pid_t child) {
    siginfo_t information{};
    return ::waitid(P_PID, static_cast<id_t>(child), &information, WSTOPPED | WNOWAIT | WNOHANG) ==
               0 &&
           information.si_pid == child;
}

/// Tells when anybody opens a file: whoever waits for its lock without being queued for it cannot
/// be seen otherwise.
class Openings {
public:
    explicit Openings(const std::string& path)
        : events(::inotify_init1(IN_CLOEXEC)) {
        if (!events || ::inotify_add_watch(events.get(), path.c_str(), IN_OPEN) == -1) {
            throw std::system_error(errno, std::generic_category(), path);
        }
    }

    /// Returns once the file has been opened since the object was made; throws when it is not
    /// within a generous limit.
    void wait() const {
        constexpr int minute = 60 * 1000;
        pollfd opened{events.get(), POLLIN, 0};
        if (foundation::os::retryOnInterrupt([&] { return ::poll(&opened, 1, 4 * minute); }) != 1) {
            throw std::runtime_error("nobody opened the file");
        }
    }

private:
    foundation::os::FileDescriptor events;
};

} // namespace tests
