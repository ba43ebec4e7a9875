#include "endpointregistry/detail/JoinedFolder.h"

#include "endpointregistry/EntryName.h"
#include "endpointregistry/Folders.h"
#include "endpointregistry/LockedFile.h"
#include "endpointregistry/Loggers.h"
#include "endpointregistry/detail/NameListing.h"
#include "foundation/os/Accounts.h"
#include "foundation/os/AppearingFolder.h"
#include "foundation/os/FileIdentity.h"
#include "foundation/os/RetryOnInterrupt.h"

#include <cerrno>
#include <fcntl.h>
#include <stdexcept>
#include <sys/stat.h>
#include <unistd.h>
#include <utility>

namespace agent::spf::endpointregistry {

namespace {

namespace os = foundation::os;
using foundation::log::severity;

constexpr const char* inconsistency = "Endpoint Registry Error: File system inconsistency";
constexpr mode_t permissions = S_IRWXU | S_IRWXG | S_IRWXO;
constexpr mode_t everybody = permissions;
constexpr mode_t groupOnly = S_IRWXU | S_IRWXG;

[[noreturn]] void fail(const std::string& what, const std::string& path, int error) {
    getLogger().log(severity::error, what, path, ">. (Error ", error, ")");
    throw std::runtime_error(inconsistency);
}

gid_t groupOf(const std::string& trustee) {
    if (const auto group = os::findGroupId(trustee)) {
        return *group;
    }
    const int error = errno;
    getLogger().log(severity::error, "Utils::setTrustee(): Failed to find the specified group: <",
                    trustee, ">. (Error ", error, ")");
    if (os::saysNoSuchEntry(error)) {
        throw std::invalid_argument(inconsistency);
    }
    throw std::runtime_error(inconsistency);
}

/// The shared folder itself is the administrator's, who may have put a link there.
os::FileDescriptor openSharedFolder() {
    const std::string shared = getSharedFolderPath();
    return os::FileDescriptor(os::retryOnInterrupt(
        [&] { return ::open(shared.c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC); }));
}

bool mayBeOwnedBy(uid_t owner, gid_t group, const std::string& path) {
    constexpr uid_t root = 0;
    if (owner == root) {
        return true;
    }
    // In a parent with the set-group-id bit, a stranger's folder has the group as well.
    const auto isMember = os::isMember(owner, group);
    if (!isMember) {
        fail("Utils::setTrustee(): Failed to ask for the members of the group of: <", path, errno);
    }
    return *isMember;
}

/// The folder in this place, made with this mode and group when it is missing.
os::FileDescriptor obtainFolder(const os::FilePlace& place, mode_t mode, std::optional<gid_t> group,
                                const std::string& path) {
    for (;;) {
        os::FileDescriptor folder = os::openFolder(place);
        if (folder) {
            return folder;
        }
        if (errno != ENOENT) {
            fail("Utils::createFolder(): Failed to open the directory: <", path, errno);
        }
        // A process may have the group's rights without its user being a member. Members would
        // not trust the folder, and could not make one of their own beside it.
        if (group && !mayBeOwnedBy(::geteuid(), *group, path)) {
            fail("Utils::setTrustee(): The user is no member of the group of: <", path, EPERM);
        }
        const int error = os::createAppearingFolder(place, mode, group);
        if (error != 0 && error != EEXIST) {
            fail("Utils::createFolder(): Failed to create the directory: <", path, error);
        }
    }
}

/// A level that everybody may pass through and add to.
os::FileDescriptor obtainPublicFolder(const os::FilePlace& place, const std::string& path) {
    os::FileDescriptor folder = obtainFolder(place, everybody, std::nullopt, path);
    struct stat status {};
    if (::fstat(folder.get(), &status) != 0) {
        fail("Utils::makePublic(): Failed to stat the path: <", path, errno);
    }
    const bool isPublic = (status.st_mode & everybody) == everybody;
    if (!isPublic && ::fchmod(folder.get(), status.st_mode | everybody) != 0) {
        fail("Utils::makePublic(): Failed to change permissions to make it public: <", path, errno);
    }
    return folder;
}

bool belongsTo(int folder, gid_t group, const std::string& path) {
    struct stat status {};
    if (::fstat(folder, &status) != 0) {
        fail("Utils::setTrustee(): Failed to stat the path: <", path, errno);
    }
    return status.st_gid == group && (status.st_mode & permissions) == groupOnly &&
           (status.st_uid == ::geteuid() || mayBeOwnedBy(status.st_uid, group, path)) &&
           !os::carriesAccessControlList(folder);
}

} // namespace

JoinedFolder::JoinedFolder(os::FileDescriptor folder, std::string path, gid_t group)
    : folder(std::move(folder))
    , ownPath(std::move(path))
    , ownGroup(group) {
    if (!belongsTo(this->folder.get(), ownGroup, ownPath)) {
        fail("Utils::setTrustee(): The directory does not belong to its group: <", ownPath, EPERM);
    }
}

bool JoinedFolder::isStillNamed() const {
    return os::identityAt(ownPath) == os::identityOf(folder.get());
}

std::optional<JoinedFolder> JoinedFolder::find(const std::string& parent,
                                               const std::string& trustee) {
    std::string path = LockedFile::getParentPath(parent, trustee, false);
    os::FileDescriptor folder = openSharedFolder();
    for (const std::string& level : {std::string("Corvantis"), parent, hashString(trustee)}) {
        if (folder) {
            folder = os::openFolder({folder.get(), level});
        }
    }
    if (!folder) {
        if (errno == ENOENT) {
            return std::nullopt;
        }
        failToReadFolder(errno);
    }
    return JoinedFolder(std::move(folder), std::move(path), groupOf(trustee));
}

JoinedFolder JoinedFolder::obtain(const std::string& parent, const std::string& trustee) {
    const gid_t group = groupOf(trustee);
    std::string path = LockedFile::getParentPath(parent, trustee, false);
    const os::FileDescriptor shared = openSharedFolder();
    if (!shared) {
        fail("Utils::createFolder(): Failed to open the directory: <", getSharedFolderPath(),
             errno);
    }
    const std::string topPath = getSharedFolderPath() + "/Corvantis/";
    const os::FileDescriptor top = obtainPublicFolder({shared.get(), "Corvantis"}, topPath);
    const os::FileDescriptor middle =
        obtainPublicFolder({top.get(), parent}, topPath + parent + "/");
    os::FileDescriptor folder =
        obtainFolder({middle.get(), hashString(trustee)}, groupOnly, group, path);
    return {std::move(folder), std::move(path), group};
}

} // namespace agent::spf::endpointregistry
