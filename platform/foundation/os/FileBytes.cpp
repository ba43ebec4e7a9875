#include "foundation/os/FileBytes.h"

#include "foundation/os/RetryOnInterrupt.h"

#include <cerrno>
#include <sys/types.h>
#include <unistd.h>

namespace foundation::os {

int writeAll(int descriptor, std::string_view bytes, std::size_t offset) noexcept {
    while (!bytes.empty()) {
        const ssize_t count = retryOnInterrupt([&] {
            return ::pwrite(descriptor, bytes.data(), bytes.size(), static_cast<off_t>(offset));
        });
        if (count == -1) {
            return errno;
        }
        bytes.remove_prefix(static_cast<std::size_t>(count));
        offset += static_cast<std::size_t>(count);
    }
    return 0;
}

std::optional<std::string> readFirst(int descriptor, std::size_t size) {
    std::string bytes(size, '\0');
    std::size_t filled = 0;
    while (filled < size) {
        const ssize_t count = retryOnInterrupt([&] {
            return ::pread(descriptor, bytes.data() + filled, size - filled,
                           static_cast<off_t>(filled));
        });
        if (count <= 0) {
            errno = count == 0 ? 0 : errno;
            return std::nullopt;
        }
        filled += static_cast<std::size_t>(count);
    }
    return bytes;
}

} // namespace foundation::os
