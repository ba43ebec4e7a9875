#include "foundation/os/AtomicFile.h"

#include "foundation/os/DirectoryStream.h"
#include "foundation/os/RetryOnInterrupt.h"
#include "foundation/os/TemporaryName.h"

#include <cerrno>
#include <fcntl.h>
#include <optional>
#include <string>
#include <string_view>
#include <sys/stat.h>
#include <unistd.h>
#include <utility>

namespace foundation::os {

namespace {

using Prepare = std::function<int(int)>;

FileDescriptor openFile(const PathAt& where, int flags, mode_t mode = 0) {
    return FileDescriptor(retryOnInterrupt(
        [&] { return ::openat(where.folder, where.name.c_str(), flags | O_CLOEXEC, mode); }));
}

/// Gives a new file its mode, which went through the umask when it was made; nothing, with errno
/// set, when it cannot be examined or changed. Nearly always there is nothing to change.
std::optional<FileIdentity> identifyWithMode(int descriptor, mode_t mode) {
    constexpr mode_t all = S_ISUID | S_ISGID | S_ISVTX | S_IRWXU | S_IRWXG | S_IRWXO;
    struct stat status {};
    if (::fstat(descriptor, &status) != 0 ||
        ((status.st_mode & all) != mode && ::fchmod(descriptor, mode) != 0)) {
        return std::nullopt;
    }
    return FileIdentity(status);
}

/// Gives an unnamed file its name; returns 0 or the errno value.
int linkUnnamed(int descriptor, const PathAt& where) {
    const char* const name = where.name.c_str();
    if (::linkat(descriptor, "", where.folder, name, AT_EMPTY_PATH) == 0) {
        return 0;
    }
    if (errno == EEXIST) {
        return EEXIST;
    }
    // Before Linux 6.10 the empty path takes a capability, the descriptor's path does not; that
    // one is closed to a process that switched its user, and missing where /proc is.
    const std::string ownPath = "/proc/self/fd/" + std::to_string(descriptor);
    if (::linkat(AT_FDCWD, ownPath.c_str(), where.folder, name, AT_SYMLINK_FOLLOW) == 0) {
        return 0;
    }
    return errno;
}

/// Nothing when the file system has no unnamed files or this process cannot name them.
std::optional<AtomicFile> createByNamingUnnamed(const PathAt& where, mode_t mode,
                                                const Prepare& prepare) {
    FileDescriptor file = openFile(where.parent(), O_TMPFILE | O_RDWR, mode);
    if (!file) {
        return std::nullopt;
    }
    const auto identity = identifyWithMode(file.get(), mode);
    if (!identity) {
        return AtomicFile{{}, errno};
    }
    if (const int error = prepare(file.get()); error != 0) {
        return AtomicFile{{}, error};
    }
    switch (linkUnnamed(file.get(), where)) {
    case 0:
        return AtomicFile{std::move(file), 0, identity};
    case EEXIST:
        return AtomicFile{{}, EEXIST};
    default:
        return std::nullopt;
    }
}

/// The mark by which a temporary file's maker shows that it lives: a lock of the kind that belongs
/// to the open file and does not meet the flock that `prepare` may take.
struct flock makersMark(short type) {
    struct flock lock {};
    lock.l_type = type;
    lock.l_whence = SEEK_SET;
    return lock;
}

void removeIfStale(const PathAt& where) {
    const FileDescriptor file = openFile(where, O_RDONLY | O_NOFOLLOW | O_NONBLOCK);
    struct stat status {};
    if (!file || ::fstat(file.get(), &status) != 0 || !S_ISREG(status.st_mode) ||
        status.st_uid != ::geteuid()) {
        return;
    }
    // A maker between creation and mark loses its file here, notices, and makes another.
    struct flock mark = makersMark(F_RDLCK);
    if (::fcntl(file.get(), F_OFD_GETLK, &mark) == 0 && mark.l_type == F_UNLCK) {
        ::unlinkat(where.folder, where.name.c_str(), 0);
    }
}

void removeStaleTemporaries(const PathAt& where) {
    DirectoryStream names(where.parent());
    if (!names) {
        return;
    }
    while (const char* name = names.next()) {
        if (std::string_view(name).starts_with(temporaryPrefix)) {
            removeIfStale(where.sibling(name));
        }
    }
}

AtomicFile createUnderTemporaryName(const PathAt& where, mode_t mode, const Prepare& prepare) {
    removeStaleTemporaries(where);
    for (;;) {
        const TemporaryName name(where, 0);
        FileDescriptor file = openFile(name.where(), O_RDWR | O_CREAT | O_EXCL | O_NOFOLLOW, mode);
        if (!file) {
            return {{}, errno};
        }
        struct flock mark = makersMark(F_WRLCK);
        if (::fcntl(file.get(), F_OFD_SETLK, &mark) != 0) {
            return {{}, errno};
        }
        const auto identity = identifyWithMode(file.get(), mode);
        if (!identity) {
            return {{}, errno};
        }
        if (const int error = prepare(file.get()); error != 0) {
            return {{}, error};
        }
        if (::linkat(where.folder, name.get(), where.folder, where.name.c_str(), 0) == 0) {
            mark = makersMark(F_UNLCK);
            ::fcntl(file.get(), F_OFD_SETLK, &mark);
            return {std::move(file), 0, identity};
        }
        // Tidied away between its creation and its mark.
        if (errno != ENOENT) {
            return {{}, errno};
        }
    }
}

} // namespace

AtomicFile createFileAtomically(const PathAt& where, mode_t mode, const Prepare& prepare) {
    std::optional<AtomicFile> file = createByNamingUnnamed(where, mode, prepare);
    return file ? std::move(*file) : createUnderTemporaryName(where, mode, prepare);
}

} // namespace foundation::os
