#include "foundation/os/AppearingFile.h"

#include "foundation/os/DirectoryStream.h"
#include "foundation/os/RetryOnInterrupt.h"

#include <cerrno>
#include <fcntl.h>
#include <optional>
#include <random>
#include <string>
#include <string_view>
#include <sys/stat.h>
#include <unistd.h>
#include <utility>

namespace foundation::os {

namespace {

using Prepare = std::function<int(int)>;

constexpr std::string_view temporaryPrefix = ".nascent-";

std::string folderOf(const std::string& path) {
    return path.substr(0, path.rfind('/') + 1);
}

FileDescriptor openFile(const std::string& path, int flags, mode_t mode = 0) {
    return FileDescriptor(
        retryOnInterrupt([&] { return ::open(path.c_str(), flags | O_CLOEXEC, mode); }));
}

/// Gives an unnamed file its name; returns 0 or the errno value.
int linkUnnamed(int descriptor, const std::string& path) {
    if (::linkat(descriptor, "", AT_FDCWD, path.c_str(), AT_EMPTY_PATH) == 0) {
        return 0;
    }
    if (errno == EEXIST) {
        return EEXIST;
    }
    // Before Linux 6.10 the empty path takes a capability, the descriptor's path does not; that
    // one is closed to a process that switched its user, and missing where /proc is.
    const std::string ownPath = "/proc/self/fd/" + std::to_string(descriptor);
    if (::linkat(AT_FDCWD, ownPath.c_str(), AT_FDCWD, path.c_str(), AT_SYMLINK_FOLLOW) == 0) {
        return 0;
    }
    return errno;
}

/// Nothing when the file system has no unnamed files or this process cannot name them.
std::optional<AppearingFile> createByNamingUnnamed(const std::string& path, mode_t mode,
                                                   const Prepare& prepare) {
    FileDescriptor file = openFile(folderOf(path), O_TMPFILE | O_RDWR, mode);
    if (!file) {
        return std::nullopt;
    }
    // What creation gives went through the umask.
    if (::fchmod(file.get(), mode) != 0) {
        return AppearingFile{{}, errno};
    }
    if (const int error = prepare(file.get()); error != 0) {
        return AppearingFile{{}, error};
    }
    switch (linkUnnamed(file.get(), path)) {
    case 0:
        return AppearingFile{std::move(file), 0};
    case EEXIST:
        return AppearingFile{{}, EEXIST};
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

void removeIfAbandoned(const std::string& path) {
    const FileDescriptor file = openFile(path, O_RDONLY | O_NOFOLLOW | O_NONBLOCK);
    struct stat status {};
    if (!file || ::fstat(file.get(), &status) != 0 || !S_ISREG(status.st_mode) ||
        status.st_uid != ::geteuid()) {
        return;
    }
    // A maker between creation and mark loses its file here, notices, and makes another.
    struct flock mark = makersMark(F_RDLCK);
    if (::fcntl(file.get(), F_OFD_GETLK, &mark) == 0 && mark.l_type == F_UNLCK) {
        ::unlink(path.c_str());
    }
}

void removeAbandonedTemporaries(const std::string& folder) {
    DirectoryStream names(folder);
    if (!names) {
        return;
    }
    while (const char* name = names.next()) {
        if (std::string_view(name).starts_with(temporaryPrefix)) {
            removeIfAbandoned(folder + name);
        }
    }
}

std::string temporaryPath(const std::string& folder) {
    std::random_device random;
    return folder + std::string(temporaryPrefix) + std::to_string(random()) +
           std::to_string(random());
}

/// Owner of a temporary file's name.
class TemporaryName {
public:
    explicit TemporaryName(std::string path)
        : path(std::move(path)) {}
    TemporaryName(const TemporaryName&) = delete;
    TemporaryName& operator=(const TemporaryName&) = delete;
    ~TemporaryName() {
        const int before = errno;
        ::unlink(path.c_str());
        errno = before;
    }
    const char* get() const { return path.c_str(); }

private:
    std::string path;
};

AppearingFile createUnderTemporaryName(const std::string& path, mode_t mode,
                                       const Prepare& prepare) {
    removeAbandonedTemporaries(folderOf(path));
    for (;;) {
        const std::string temporary = temporaryPath(folderOf(path));
        FileDescriptor file = openFile(temporary, O_RDWR | O_CREAT | O_EXCL | O_NOFOLLOW, mode);
        if (!file) {
            if (errno == EEXIST) {
                continue;
            }
            return {{}, errno};
        }
        const TemporaryName name(temporary);
        struct flock mark = makersMark(F_WRLCK);
        if (::fcntl(file.get(), F_OFD_SETLK, &mark) != 0) {
            return {{}, errno};
        }
        if (::fchmod(file.get(), mode) != 0) {
            return {{}, errno};
        }
        if (const int error = prepare(file.get()); error != 0) {
            return {{}, error};
        }
        if (::link(name.get(), path.c_str()) == 0) {
            mark = makersMark(F_UNLCK);
            ::fcntl(file.get(), F_OFD_SETLK, &mark);
            return {std::move(file), 0};
        }
        // Tidied away between its creation and its mark.
        if (errno != ENOENT) {
            return {{}, errno};
        }
    }
}

} // namespace

AppearingFile createAppearing(const std::string& path, mode_t mode, const Prepare& prepare) {
    std::optional<AppearingFile> file = createByNamingUnnamed(path, mode, prepare);
    return file ? std::move(*file) : createUnderTemporaryName(path, mode, prepare);
}

} // namespace foundation::os
