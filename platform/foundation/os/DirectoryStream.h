#pragma once

#include "foundation/os/FileDescriptor.h"
#include "foundation/os/FilePlace.h"

#include <cerrno>
#include <dirent.h>
#include <fcntl.h>
#include <memory>

namespace foundation::os {

/// Owner of a directory that is being read.
class DirectoryStream {
public:
    /// Opens the directory; empty, with errno set, when it cannot be opened.
    explicit DirectoryStream(const FilePlace& place)
        : stream(place.folder == AT_FDCWD ? ::opendir(place.name.c_str()) : openInside(place)) {}

    explicit operator bool() const noexcept { return stream != nullptr; }

    /// The next name, valid until the next call; null at the end with errno 0, or with errno set
    /// when the directory cannot be read on.
    const char* next() noexcept {
        errno = 0;
        const dirent* entry = ::readdir(stream.get()); // NOLINT(concurrency-mt-unsafe): own stream
        return entry == nullptr ? nullptr : static_cast<const char*>(entry->d_name);
    }

private:
    static DIR* openInside(const FilePlace& place) {
        FileDescriptor directory(
            ::openat(place.folder, place.name.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
        DIR* const opened = directory ? ::fdopendir(directory.get()) : nullptr;
        if (opened != nullptr) {
            directory.release();
        }
        return opened;
    }

    struct Close {
        void operator()(DIR* open) const noexcept { ::closedir(open); }
    };
    std::unique_ptr<DIR, Close> stream;
};

} // namespace foundation::os
