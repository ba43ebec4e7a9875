#include "endpointregistry/Folders.h"

#include "endpointregistry/Loggers.h"
#include "endpointregistry/detail/TrusteeHandover.h"
#include "foundation/os/Accounts.h"
#include "foundation/os/FileDescriptor.h"
#include "foundation/os/RetryOnInterrupt.h"
#include "foundation/paths/UsersFolder.h"

#include <cerrno>
#include <fcntl.h>
#include <stdexcept>
#include <sys/stat.h>
#include <unistd.h>

// The folders lie where anybody may put something else under a name at any time, a link to a folder
// of ours for instance. So nothing here follows a link, and modes are changed on what is open.

namespace agent::spf::endpointregistry {

namespace {

namespace os = foundation::os;
using foundation::log::severity;

constexpr const char* inconsistency = "Endpoint Registry Error: File system inconsistency";
constexpr mode_t everybody = S_IRWXU | S_IRWXG | S_IRWXO;

/// Logs `before`, the path, `after` and the error number, and throws.
[[noreturn]] void fail(int error, const char* before, const std::string& path,
                       const std::string& after = ">. (Error ") {
    getLogger().log(severity::error, before, path, after, error, ")");
    throw std::runtime_error(inconsistency);
}

/// The system follows a link that has a separator behind it, whatever else it is told.
std::string withoutTrailingSeparators(const std::string& path) {
    return path.substr(0, path.find_last_not_of('/') + 1);
}

/// As lstat; a link is an error, ELOOP.
int statNoLink(const std::string& path, struct stat& status) {
    if (::lstat(path.c_str(), &status) != 0) {
        return errno;
    }
    return S_ISLNK(status.st_mode) ? ELOOP : 0;
}

/// Changes the mode of what stands under the path, unless it is a link; returns 0 or the errno
/// value.
int changeMode(const std::string& path, mode_t mode) {
    const os::FileDescriptor file(os::retryOnInterrupt(
        [&] { return ::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK); }));
    if (file) {
        return ::fchmod(file.get(), mode) == 0 ? 0 : errno;
    }
    // One that we may not read may be ours to change all the same; this way takes /proc.
    return ::fchmodat(AT_FDCWD, path.c_str(), mode, AT_SYMLINK_NOFOLLOW) == 0 ? 0 : errno;
}

gid_t getGroupId(const std::string& group) {
    if (const auto id = os::findGroupId(group)) {
        return *id;
    }
    const int error = errno;
    getLogger().log(severity::error, "Utils::setTrustee(): Failed to find the specified group: <",
                    group, ">. (Error ", error, ")");
    throw std::invalid_argument(inconsistency);
}

[[noreturn]] void failToChangeGroup(int error, const std::string& path, const std::string& group) {
    fail(error, "Utils::setTrustee(): Failed to change the group of: <", path,
         "> to: <" + group + ">. (Error ");
}

[[noreturn]] void failToStat(int error, const std::string& path) {
    fail(error, "Utils::setTrustee(): Failed to stat the path: <", path);
}

[[noreturn]] void failToIncludeGroup(int error, const std::string& path) {
    fail(error, "Utils::setTrustee(): Failed to change permissions of: <", path,
         "> to include the group. (Error ");
}

bool includesGroup(const struct stat& status) {
    return (status.st_mode & S_IRWXG) == S_IRWXG;
}

} // namespace

void createFolder(const std::string& path) {
    if (::mkdir(path.c_str(), S_IRWXU) != 0 && errno != EEXIST) {
        fail(errno, "Utils::createFolder(): Failed to create the directory: <", path);
    }
}

void makePublic(const std::string& path) {
    const std::string where = withoutTrailingSeparators(path);
    struct stat status {};
    if (const int error = statNoLink(where, status); error != 0) {
        fail(error, "Utils::makePublic(): Failed to stat the path: <", path);
    }
    if ((status.st_mode & everybody) == everybody) {
        return;
    }
    if (const int error = changeMode(where, status.st_mode | everybody); error != 0) {
        fail(error, "Utils::makePublic(): Failed to change permissions of: <", path,
             "> to make it public. (Error ");
    }
}

void setTrustee(const std::string& path, const std::string& group) {
    const gid_t groupId = getGroupId(group);
    const std::string where = withoutTrailingSeparators(path);
    if (::lchown(where.c_str(), ::getuid(), groupId) != 0) {
        failToChangeGroup(errno, path, group);
    }
    struct stat status {};
    if (const int error = statNoLink(where, status); error != 0) {
        failToStat(error, path);
    }
    if (includesGroup(status)) {
        return;
    }
    if (const int error = changeMode(where, status.st_mode | S_IRWXG); error != 0) {
        failToIncludeGroup(error, path);
    }
}

void setTrusteeOfOpenFile(int descriptor, const std::string& path, const std::string& group) {
    if (::fchown(descriptor, ::getuid(), getGroupId(group)) != 0) {
        failToChangeGroup(errno, path, group);
    }
    struct stat status {};
    if (::fstat(descriptor, &status) != 0) {
        failToStat(errno, path);
    }
    if (!includesGroup(status) && ::fchmod(descriptor, status.st_mode | S_IRWXG) != 0) {
        failToIncludeGroup(errno, path);
    }
}

std::string getSharedFolderPath() {
    const std::string users = getUsersPath();
    if (users.empty()) {
        getLogger().log(severity::error,
                        "Utils::getSharedFolderPath: Failed to get the path to Users folder");
        throw std::runtime_error(
            "Utils::getSharedFolderPath:Failed to get the path to Users folder");
    }
    return foundation::paths::sharedFolder();
}

} // namespace agent::spf::endpointregistry
