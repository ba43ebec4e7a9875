#include "foundation/os/DirectoryStream.h"

#include "foundation/os/RetryOnInterrupt.h"

#include <algorithm>
#include <cerrno>
#include <dirent.h>
#include <fcntl.h>
#include <unistd.h>

namespace foundation::os {

// Not by opendir and readdir, which ask for the status of the directory and allocate memory for
// each reading: of a lookup in a small directory that would be a seventh.

// NOLINTNEXTLINE(cppcoreguidelines-pro-type-member-init): the buffer is filled by the system
DirectoryStream::DirectoryStream(const PathAt& where)
    : own(retryOnInterrupt([&] {
        return ::openat(where.folder, where.name.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    }))
    , directory(own.get()) {
}

// NOLINTNEXTLINE(cppcoreguidelines-pro-type-member-init)
DirectoryStream::DirectoryStream(int directory, Reading reading) noexcept
    : directory(directory)
    , atOnce(static_cast<std::size_t>(reading)) {
}

const char* DirectoryStream::next() noexcept {
    if (position == filled) {
        const auto count =
            retryOnInterrupt([&] { return ::getdents64(directory, buffer.data(), atOnce); });
        if (count <= 0) {
            errno = count == 0 ? 0 : errno;
            return nullptr;
        }
        atOnce = std::min(2 * atOnce, buffer.size());
        position = 0;
        filled = static_cast<std::size_t>(count);
    }
    // NOLINTNEXTLINE(cppcoreguidelines-pro-type-reinterpret-cast): as the call is declared
    const auto* const entry = reinterpret_cast<const dirent64*>(buffer.data() + position);
    position += entry->d_reclen;
    return static_cast<const char*>(entry->d_name);
}

} // namespace foundation::os
