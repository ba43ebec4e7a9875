#pragma once

#include "foundation/os/FileDescriptor.h"

#include <fcntl.h>
#include <unistd.h>
#include <utility>

namespace foundation::os {

// Where a service is started without the standard streams, what it opens may land on their numbers,
// to be taken for one.

/// The same open file under another number, above those of the standard streams. Empty, with errno
/// set, when there is no number left.
inline FileDescriptor duplicateAboveStreams(int descriptor) noexcept {
    return FileDescriptor(::fcntl(descriptor, F_DUPFD_CLOEXEC, STDERR_FILENO + 1));
}

/// The same open file, with such a number. Else as above; what is empty stays so.
inline FileDescriptor liftDescriptor(FileDescriptor descriptor) noexcept {
    return !descriptor || descriptor.get() > STDERR_FILENO
               ? std::move(descriptor)
               : duplicateAboveStreams(descriptor.get());
}

} // namespace foundation::os
