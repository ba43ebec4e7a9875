#pragma once

#include "foundation/os/FileDescriptor.h"

#include <cerrno>
#include <dirent.h>
#include <memory>
#include <string>

namespace foundation::os {

/// Owner of a directory that is being read.
class DirectoryStream {
public:
    /// Opens the directory; empty, with errno set, when it cannot be opened.
    explicit DirectoryStream(const std::string& path)
        : stream(::opendir(path.c_str())) {}

    /// Reads an open directory from its present position on; empty, with errno set, when it cannot
    /// be read.
    explicit DirectoryStream(FileDescriptor directory)
        : stream(directory ? ::fdopendir(directory.get()) : nullptr) {
        if (stream) {
            directory.release();
        }
    }

    explicit operator bool() const noexcept { return stream != nullptr; }

    /// The next name, valid until the next call; null at the end with errno 0, or with errno set
    /// when the directory cannot be read on.
    const char* next() noexcept {
        errno = 0;
        const dirent* entry = ::readdir(stream.get()); // NOLINT(concurrency-mt-unsafe): own stream
        return entry == nullptr ? nullptr : static_cast<const char*>(entry->d_name);
    }

private:
    struct Close {
        void operator()(DIR* open) const noexcept { ::closedir(open); }
    };
    std::unique_ptr<DIR, Close> stream;
};

} // namespace foundation::os
