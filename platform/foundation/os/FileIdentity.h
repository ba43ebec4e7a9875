#pragma once

#include "foundation/os/PathAt.h"

#include <optional>
#include <sys/stat.h>

namespace foundation::os {

/// Which file it is, whatever its name: two files that exist at the same time differ in it.
struct FileIdentity {
    dev_t device;
    ino_t inode;

    explicit FileIdentity(const struct stat& status) noexcept
        : device(status.st_dev)
        , inode(status.st_ino) {}

    bool operator==(const FileIdentity&) const = default;
};

/// The identity of an open file; nothing, with errno set, when it cannot be examined.
inline std::optional<FileIdentity> identityOf(int descriptor) noexcept {
    struct stat status {};
    if (::fstat(descriptor, &status) != 0) {
        return std::nullopt;
    }
    return FileIdentity(status);
}

/// The identity of what stands under a path, a link itself and not what it points to.
inline std::optional<FileIdentity> identityAt(const PathAt& where) noexcept {
    struct stat status {};
    if (::fstatat(where.folder, where.name.c_str(), &status, AT_SYMLINK_NOFOLLOW) != 0) {
        return std::nullopt;
    }
    return FileIdentity(status);
}

} // namespace foundation::os
