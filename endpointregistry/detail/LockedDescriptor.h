#pragma once

#include "endpointregistry/detail/LockHolder.h"
#include "foundation/os/FileDescriptor.h"
#include "foundation/os/HighDescriptor.h"

#include <sys/file.h>
#include <sys/types.h>
#include <unistd.h>
#include <utility>

namespace agent::spf::endpointregistry {

/// Owner of an open file together with the flock that this process took on it.
///
/// The lock belongs to the open file, of which a forked child holds a copy: unlocking there would
/// free the parent's lock, and only closing here would leave it with the child. So the process
/// that took the lock unlocks explicitly, and every other one just closes.
class LockedDescriptor {
public:
    LockedDescriptor() noexcept = default;
    explicit LockedDescriptor(foundation::os::FileDescriptor locked) noexcept
        : descriptor(std::move(locked))
        , owner(::getpid()) {}

    LockedDescriptor(LockedDescriptor&& other) noexcept = default;
    LockedDescriptor& operator=(LockedDescriptor&& other) noexcept {
        if (this != &other) {
            release();
            descriptor = std::move(other.descriptor);
            owner = other.owner;
            isMarked = other.isMarked;
        }
        return *this;
    }
    LockedDescriptor(const LockedDescriptor&) = delete;
    LockedDescriptor& operator=(const LockedDescriptor&) = delete;
    ~LockedDescriptor() { release(); }

    int get() const noexcept { return descriptor.get(); }
    explicit operator bool() const noexcept { return static_cast<bool>(descriptor); }

    /// Whether it is the copy that a fork made of another process's lock.
    bool isInherited() const noexcept { return descriptor && owner != ::getpid(); }

    /// Marks the file with its holder for those who wait for the lock, until it is released.
    void mark() noexcept {
        markHolder(descriptor.get(), owner);
        isMarked = true;
    }

    /// Moves it away from the numbers of the standard streams, where it may have landed when a
    /// service is started without them, to be taken for one. Where no number is left, it stays.
    void lift() noexcept {
        if (descriptor && descriptor.get() <= STDERR_FILENO) {
            if (auto lifted = foundation::os::duplicateAboveStreams(descriptor.get())) {
                descriptor = std::move(lifted);
            }
        }
    }

    /// Unlocks and closes.
    void release() noexcept {
        if (descriptor && owner == ::getpid()) {
            // A forked child's copy of the descriptor would keep the mark, and the next holder
            // would be taken for this process.
            if (isMarked) {
                unmarkHolder(descriptor.get());
            }
            ::flock(descriptor.get(), LOCK_UN);
        }
        descriptor.reset();
    }

    /// Leaves the file open and locked until the process ends.
    void leaveOpen() noexcept { descriptor.release(); }

private:
    foundation::os::FileDescriptor descriptor;
    pid_t owner = 0;
    bool isMarked = false;
};

} // namespace agent::spf::endpointregistry
