#include "endpointregistry/detail/JoinedFolder.h"

#include "endpointregistry/EntryName.h"
#include "endpointregistry/Folders.h"
#include "endpointregistry/Loggers.h"
#include "endpointregistry/detail/NameListing.h"
#include "endpointregistry/detail/ParentPath.h"
#include "endpointregistry/detail/UsersFolder.h"
#include "foundation/os/Accounts.h"
#include "foundation/os/AppearingFolder.h"
#include "foundation/os/FolderOpening.h"
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

gid_t groupOf(const os::Group& trustee) {
    if (const auto group = trustee.id()) {
        return *group;
    }
    const int error = errno;
    getLogger().log(severity::error, "Utils::setTrustee(): Failed to find the specified group: <",
                    trustee.name(), ">. (Error ", error, ")");
    if (os::saysNoSuchEntry(error)) {
        throw std::invalid_argument(inconsistency);
    }
    throw std::runtime_error(inconsistency);
}

constexpr const char* topLevel = "Corvantis";

/// The levels below the shared folder.
std::vector<std::string> levelsOf(const std::string& parent, const os::Group& trustee) {
    return {topLevel, parent, hashString(trustee.name())};
}

std::string topPath() {
    return sharedFolderIn(usersFolder()) + "/" + topLevel + "/";
}

std::string pathOf(const std::string& parent, const os::Group& trustee) {
    return topPath() + parent + "/" + hashString(trustee.name()) + "/";
}

/// The folder as it is; empty, with errno set, when it cannot be opened.
os::FileDescriptor openExisting(const std::string& path, const std::string& parent,
                                const os::Group& trustee) {
    os::FileDescriptor folder = os::openThroughNoLink(path, O_RDONLY | O_DIRECTORY);
    // Links on the way to the shared folder are its administrator's, and not every kernel and
    // filter knows the call.
    return folder || errno == ENOENT
               ? std::move(folder)
               : os::openFolderBelow(sharedFolderIn(usersFolder()), levelsOf(parent, trustee));
}

/// The shared folder itself is the administrator's, who may have put a link there.
os::FileDescriptor openSharedFolder() {
    const std::string shared = getSharedFolderPath();
    return os::FileDescriptor(os::retryOnInterrupt(
        [&] { return ::open(shared.c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC); }));
}

bool mayBeOwnedBy(uid_t owner, const os::Group& trustee, const std::string& path) {
    // In a parent with the set-group-id bit, a stranger's folder has the group as well.
    const auto isTrusted = trustee.trusts(owner);
    if (!isTrusted) {
        fail("Utils::setTrustee(): Failed to ask for the members of the group of: <", path, errno);
    }
    return *isTrusted;
}

/// The folder in this place, made with this mode and group when it is missing.
os::FileDescriptor obtainFolder(const os::FilePlace& place, mode_t mode, const os::Group* trustee,
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
        if (trustee != nullptr && !mayBeOwnedBy(::geteuid(), *trustee, path)) {
            fail("Utils::setTrustee(): The user is no member of the group of: <", path, EPERM);
        }
        const int error = os::createAppearingFolder(
            place, mode, trustee != nullptr ? std::optional(groupOf(*trustee)) : std::nullopt);
        if (error != 0 && error != EEXIST) {
            fail("Utils::createFolder(): Failed to create the directory: <", path, error);
        }
    }
}

/// A level that everybody may pass through and add to.
os::FileDescriptor obtainPublicFolder(const os::FilePlace& place, const std::string& path) {
    os::FileDescriptor folder = obtainFolder(place, everybody, nullptr, path);
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

bool belongsTo(const os::Group& trustee, const struct stat& status, const std::string& path) {
    return status.st_gid == groupOf(trustee) && (status.st_mode & permissions) == groupOnly &&
           (status.st_uid == ::geteuid() || mayBeOwnedBy(status.st_uid, trustee, path));
}

/// Which folder it is, provided that it belongs to the group.
os::FileIdentity examine(int folder, const os::Group& trustee, const std::string& path) {
    struct stat status {};
    if (::fstat(folder, &status) != 0) {
        fail("Utils::setTrustee(): Failed to stat the path: <", path, errno);
    }
    if (!belongsTo(trustee, status, path) || os::carriesAccessControlList(folder)) {
        fail("Utils::setTrustee(): The directory does not belong to its group: <", path, EPERM);
    }
    return os::FileIdentity(status);
}

} // namespace

JoinedFolder::JoinedFolder(os::FileDescriptor folder, std::string path, const os::Group& trustee)
    : OpenFolder(std::move(folder), std::move(path))
    , ownGroup(groupOf(trustee))
    , identity(examine(descriptor(), trustee, this->path())) {
}

bool JoinedFolder::isStillNamed() const {
    return os::identityAt(path()) == identity;
}

std::optional<JoinedFolder> JoinedFolder::find(const std::string& parent,
                                               const os::Group& trustee) {
    std::string path = pathOf(parent, trustee);
    os::FileDescriptor folder = openExisting(path, parent, trustee);
    if (!folder) {
        const int error = errno;
        parentPathOf(parent, trustee.name(), false); // Says what else is missing.
        if (error == ENOENT) {
            return std::nullopt;
        }
        failToReadFolder(error);
    }
    return JoinedFolder(std::move(folder), std::move(path), trustee);
}

JoinedFolder JoinedFolder::enter(const std::string& parent, const os::Group& trustee) {
    std::string path = pathOf(parent, trustee);
    if (os::FileDescriptor folder = openExisting(path, parent, trustee)) {
        return {std::move(folder), std::move(path), trustee};
    }
    return obtain(parent, trustee);
}

JoinedFolder JoinedFolder::obtain(const std::string& parent, const os::Group& trustee) {
    groupOf(trustee);                            // Before anything is made.
    parentPathOf(parent, trustee.name(), false); // Says what is missing above.
    const os::FileDescriptor shared = openSharedFolder();
    if (!shared) {
        fail("Utils::createFolder(): Failed to open the directory: <", getSharedFolderPath(),
             errno);
    }
    const os::FileDescriptor top = obtainPublicFolder({shared.get(), topLevel}, topPath());
    const os::FileDescriptor middle =
        obtainPublicFolder({top.get(), parent}, topPath() + parent + "/");
    std::string path = pathOf(parent, trustee);
    os::FileDescriptor folder =
        obtainFolder({middle.get(), hashString(trustee.name())}, groupOnly, &trustee, path);
    return {std::move(folder), std::move(path), trustee};
}

} // namespace agent::spf::endpointregistry
