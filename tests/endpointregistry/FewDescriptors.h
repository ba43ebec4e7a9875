#pragma once

#include "foundation/os/FileDescriptor.h"

#include <cerrno>
#include <cstddef>
#include <fcntl.h>
#include <sys/resource.h>
#include <system_error>
#include <utility>
#include <vector>

namespace tests {

/// Leaves the calling process this many descriptors to open, until what it returns is gone; no more
/// than before even then, so call it in a child.
inline std::vector<foundation::os::FileDescriptor> leaveDescriptors(std::size_t count) {
    constexpr rlim_t most = 128;
    const rlimit limit{most, most};
    if (::setrlimit(RLIMIT_NOFILE, &limit) != 0) {
        throw std::system_error(errno, std::generic_category(), "setrlimit");
    }
    std::vector<foundation::os::FileDescriptor> hoard;
    while (foundation::os::FileDescriptor next{::open("/", O_PATH | O_CLOEXEC)}) {
        hoard.push_back(std::move(next));
    }
    hoard.resize(hoard.size() - count);
    return hoard;
}

} // namespace tests
