#include "endpointregistry/detail/LockHolder.h"

#include "foundation/os/RetryOnInterrupt.h"

#include <chrono>
#include <fcntl.h>
#include <unistd.h>

namespace agent::spf::endpointregistry {

namespace {

namespace os = foundation::os;

// A process id has at most 22 bits, so both fit into an offset, which has 63.
constexpr unsigned numberBits = 40;
constexpr std::uint64_t numberMask = (std::uint64_t{1} << numberBits) - 1;

/// The clock goes on between any two takings of a lock, and comes back to the same number only
/// after a quarter of an hour.
std::uint64_t newNumber() {
    const auto now = std::chrono::steady_clock::now().time_since_epoch();
    const auto count = std::chrono::duration_cast<std::chrono::nanoseconds>(now).count();
    return static_cast<std::uint64_t>(count) & numberMask;
}

/// A lock of the open file, not of the process, from `start` on; a length of 0 has no end.
struct flock rangeLock(short type, off_t start, off_t length) {
    struct flock lock {};
    lock.l_type = type;
    lock.l_whence = SEEK_SET;
    lock.l_start = start;
    lock.l_len = length;
    return lock;
}

bool applyToOpenFile(int fd, int command, struct flock& lock) {
    return os::retryOnInterrupt([&] { return ::fcntl(fd, command, &lock); }) == 0;
}

} // namespace

std::chrono::nanoseconds HolderMark::age() const noexcept {
    return std::chrono::nanoseconds((newNumber() - number) & numberMask);
}

void markHolder(int fd, pid_t process) noexcept {
    const auto start = static_cast<std::uint64_t>(process) << numberBits | newNumber();
    struct flock mark = rangeLock(F_RDLCK, static_cast<off_t>(start), 1);
    applyToOpenFile(fd, F_OFD_SETLK, mark);
}

void unmarkHolder(int fd) noexcept {
    struct flock everything = rangeLock(F_UNLCK, 0, 0);
    applyToOpenFile(fd, F_OFD_SETLK, everything);
}

std::optional<HolderMark> findHolder(int fd) noexcept {
    // Asking for a lock to write with, which any mark stands against, takes none.
    struct flock found = rangeLock(F_WRLCK, 0, 0);
    if (!applyToOpenFile(fd, F_OFD_GETLK, found) || found.l_type == F_UNLCK) {
        return std::nullopt;
    }
    const auto start = static_cast<std::uint64_t>(found.l_start);
    return HolderMark{static_cast<pid_t>(start >> numberBits), start & numberMask};
}

} // namespace agent::spf::endpointregistry
