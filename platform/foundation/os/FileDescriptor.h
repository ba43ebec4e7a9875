#pragma once

#include <cerrno>
#include <unistd.h>
#include <utility>

namespace foundation::os {

/// Owner of an open file descriptor.
class FileDescriptor {
public:
    FileDescriptor() noexcept = default;
    explicit FileDescriptor(int descriptor) noexcept
        : descriptor(descriptor) {}

    FileDescriptor(FileDescriptor&& other) noexcept
        : descriptor(other.release()) {}
    FileDescriptor& operator=(FileDescriptor&& other) noexcept {
        reset(other.release());
        return *this;
    }
    FileDescriptor(const FileDescriptor&) = delete;
    FileDescriptor& operator=(const FileDescriptor&) = delete;
    ~FileDescriptor() { reset(); }

    /// The descriptor, or -1 when none is owned.
    int get() const noexcept { return descriptor; }
    explicit operator bool() const noexcept { return descriptor != -1; }

    /// Gives the descriptor up without closing it.
    int release() noexcept { return std::exchange(descriptor, -1); }

    /// Closes the descriptor, leaving errno as it was, and owns `next` from now on.
    void reset(int next = -1) noexcept {
        if (descriptor != -1) {
            // Not repeated on EINTR: Linux has given the number free by then, and another thread
            // may own it already.
            const int before = errno;
            ::close(descriptor);
            errno = before;
        }
        descriptor = next;
    }

private:
    int descriptor = -1;
};

} // namespace foundation::os
