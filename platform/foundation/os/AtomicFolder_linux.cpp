#include "foundation/os/AtomicFolder.h"

#include "foundation/os/DirectoryStream.h"
#include "foundation/os/FolderOpening.h"
#include "foundation/os/Renaming.h"
#include "foundation/os/RetryOnInterrupt.h"
#include "foundation/os/TemporaryName.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <fcntl.h>
#include <string_view>
#include <sys/file.h>
#include <sys/stat.h>
#include <sys/xattr.h>
#include <unistd.h>

namespace foundation::os {

namespace {

/// What the kernel keeps access control lists as.
constexpr std::array<const char*, 2> accessLists{"system.posix_acl_access",
                                                 "system.posix_acl_default"};

bool isOwn(int folder) {
    struct stat status {};
    return ::fstat(folder, &status) == 0 && status.st_uid == ::geteuid();
}

int removeAccessLists(int folder) {
    for (const char* const list : accessLists) {
        if (::fremovexattr(folder, list) != 0 && errno != ENODATA && errno != EOPNOTSUPP) {
            return errno;
        }
    }
    return 0;
}

/// The mark by which a temporary folder's maker shows that it lives.
bool mark(int folder) {
    return retryOnInterrupt([&] { return ::flock(folder, LOCK_EX | LOCK_NB); }) == 0;
}

void removeStaleTemporaries(const PathAt& where) {
    DirectoryStream names(where.parent());
    if (!names) {
        return;
    }
    while (const char* name = names.next()) {
        if (!std::string_view(name).starts_with(temporaryPrefix)) {
            continue;
        }
        const PathAt temporary = where.sibling(name);
        const FileDescriptor folder = openFolder(temporary);
        // A maker between creation and mark loses its folder here, notices, and makes another.
        if (folder && isOwn(folder.get()) && mark(folder.get())) {
            ::unlinkat(temporary.folder, temporary.name.c_str(), AT_REMOVEDIR);
        }
    }
}

/// Gives a new folder its group and mode; returns 0 or the errno value. The lists go first: what
/// they grant is limited by the group's permissions only until the mode is set.
int initialize(int folder, mode_t mode, std::optional<gid_t> group) {
    if (const int error = removeAccessLists(folder); error != 0) {
        return error;
    }
    constexpr auto sameUser = static_cast<uid_t>(-1);
    if (group && ::fchown(folder, sameUser, *group) != 0) {
        return errno;
    }
    return ::fchmod(folder, mode) == 0 ? 0 : errno;
}

} // namespace

int createFolderAtomically(const PathAt& where, mode_t mode, std::optional<gid_t> group) {
    removeStaleTemporaries(where);
    for (;;) {
        const TemporaryName name(where, AT_REMOVEDIR);
        if (::mkdirat(where.folder, name.get(), S_IRWXU) != 0) {
            return errno;
        }
        FileDescriptor folder = openFolder(name.where());
        if (!folder && errno == EACCES) {
            // The umask has taken even our own permissions.
            ::fchmodat(where.folder, name.get(), S_IRWXU, AT_SYMLINK_NOFOLLOW);
            folder = openFolder(name.where());
        }
        if (!folder) {
            if (errno == ENOENT) {
                continue; // Tidied away before its mark.
            }
            return errno;
        }
        // Somebody who may write here may have put another in its place.
        if (!isOwn(folder.get())) {
            return EPERM;
        }
        if (!mark(folder.get())) {
            if (errno == EWOULDBLOCK) {
                continue; // Somebody is about to tidy it away.
            }
            return errno;
        }
        if (const int error = initialize(folder.get(), mode, group); error != 0) {
            return error;
        }
        const int error = renameWithoutReplacing(name.where(), where);
        if (error != ENOENT) {
            return error;
        }
    }
}

bool carriesAccessControlList(int descriptor) {
    // Where a file carries no attribute at all, as is usual, one call tells.
    if (::flistxattr(descriptor, nullptr, 0) == 0) {
        return false;
    }
    return std::any_of(accessLists.begin(), accessLists.end(), [descriptor](const char* list) {
        return ::fgetxattr(descriptor, list, nullptr, 0) >= 0 ||
               (errno != ENODATA && errno != EOPNOTSUPP);
    });
}

} // namespace foundation::os
