#pragma once

#include "foundation/os/FileDescriptor.h"

#include <fcntl.h>
#include <unistd.h>

namespace foundation::os {

/// The same open file under a number above those of the standard streams, where it may land when a
/// service is started without them, to be taken for one. Empty, with errno set, when there is no
/// number left, and what is empty stays so.
inline FileDescriptor liftDescriptor(FileDescriptor descriptor) noexcept {
    constexpr int firstOther = STDERR_FILENO + 1;
    if (!descriptor || descriptor.get() >= firstOther) {
        return descriptor;
    }
    return FileDescriptor(::fcntl(descriptor.get(), F_DUPFD_CLOEXEC, firstOther));
}

} // namespace foundation::os
