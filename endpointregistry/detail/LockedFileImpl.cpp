#include "endpointregistry/detail/LockedFileImpl.h"

#include "endpointregistry/Folders.h"
#include "endpointregistry/Loggers.h"
#include "endpointregistry/detail/LockingOpen.h"
#include "endpointregistry/detail/TrusteeHandover.h"
#include "foundation/os/Accounts.h"
#include "foundation/os/FileIdentity.h"
#include "foundation/os/GroupDirectory.h"

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

constexpr const char* inconsistency = "System Error: File system inconsistency";

} // namespace

LockedFile::Impl::Impl(std::string name, const std::string& parent, std::string trustee,
                       bool isExclusive, Waiting waiting)
    : isExclusive(isExclusive)
    , deleteOnDestruction(isExclusive)
    , name(std::move(name))
    , trustee(std::move(trustee))
    , parentPath(findParentFolder(parent))
    , lock(lockFile(waiting, {})) {
}

LockedFile::Impl::Impl(std::string name, GroupFolder folder, std::string trustee, bool isExclusive,
                       Waiting waiting, std::string_view contents)
    : isExclusive(isExclusive)
    , deleteOnDestruction(isExclusive)
    , name(std::move(name))
    , trustee(std::move(trustee))
    , folder(std::move(folder))
    , parentPath(this->folder->path())
    , lock(lockFile(waiting, contents)) {
}

LockedFile::Impl::Impl(std::string name, const OpenFolder& openFolder)
    : isExclusive(true)
    , deleteOnDestruction(true)
    , name(std::move(name))
    , parentPath(openFolder.path())
    , lock(keep(openAt(openFolder.at(this->name), Waiting::never(), {}), Waiting::never())) {
}

os::PathAt LockedFile::Impl::where() const {
    return folder ? folder->at(name) : os::PathAt(parentPath + name);
}

bool LockedFile::Impl::isOursToRemove() const {
    if (!lock) {
        return true;
    }
    // The file of a forked child's copy is its parent's.
    return !lock.isInherited() && !isReplaced();
}

bool LockedFile::Impl::isReplaced() const {
    // If ours was removed by somebody, a file that stands there now is another holder's.
    const os::PathAt file = where();
    struct stat status {};
    return ::fstatat(file.folder, file.name.c_str(), &status, AT_SYMLINK_NOFOLLOW) == 0 &&
           S_ISREG(status.st_mode) && os::FileIdentity(status) != identity;
}

bool LockedFile::Impl::isStillNamed() const {
    return lock ? os::identityAt(parentPath + name) == identity : !folder || folder->isStillNamed();
}

LockedFile::Impl::~Impl() {
    if (deleteOnDestruction && isOursToRemove()) {
        try {
            // While the lock is held, so that nobody takes the file for a stale one.
            removeFile(where(), parentPath + name);
        } catch (...) { // NOLINT(bugprone-empty-catch): only a log sink of the application throws
        }
    }
    unlockAndCloseFile();
}

std::string LockedFile::Impl::findParentFolder(const std::string& parent) const {
    if (parent.empty()) {
        getLogger().log(severity::error,
                        "LockedFile::createParentFolder(): Parent name cannot be empty.");
        throw std::invalid_argument("LockedFile parent name cannot be empty");
    }
    // A private folder is nearly always there, so it is made only when it turns out to be missing;
    // or at once where no file will be looked for.
    return getParentPath(parent, trustee, !trustee.empty() || name.empty());
}

LockingOpen LockedFile::Impl::openAt(const os::PathAt& where, Waiting waiting,
                                     std::string_view contents) const {
    return openAndLock(where, isExclusive ? Existing::refused : Existing::accepted, waiting,
                       {folder ? std::optional(folder->group()) : std::nullopt, contents});
}

LockingOpen LockedFile::Impl::openByPath(Waiting waiting, std::string_view contents) const {
    LockingOpen opened = openAt(where(), waiting, contents);
    const bool isAnswer =
        opened.error == 0 || opened.error == EEXIST || opened.error == EWOULDBLOCK;
    if (!isAnswer && trustee.empty()) {
        createFolder(parentPath); // Says so if that is what is wrong.
        opened = opened.error == ENOENT ? openAt(where(), waiting, contents) : std::move(opened);
    }
    return opened;
}

LockedDescriptor LockedFile::Impl::lockFile(Waiting waiting, std::string_view contents) {
    if (name.empty()) {
        getLogger().log(severity::error, "LockedFile::lockFile(): Name cannot be empty.");
        throw std::invalid_argument("LockedFile name cannot be empty");
    }
    return keep(openByPath(waiting, contents), waiting);
}

LockedDescriptor LockedFile::Impl::keep(LockingOpen opened, Waiting waiting) {
    if (opened.error != 0) {
        const bool isTaken = opened.error == EWOULDBLOCK || opened.error == EEXIST;
        // Then whoever opened the folder opens the one that is at its path now.
        const bool isFolderRemoved = opened.error == ENOENT && folder && !folder->isStillNamed();
        if (!waiting.isNever() && !isTaken && !isFolderRemoved) {
            getLogger().log(severity::error, "LockedFile::lockFile(): Failed to create file: <",
                            parentPath, name, ">. (Error ", opened.error, ")");
            throw std::runtime_error(inconsistency);
        }
        // The file, if there is one, is another holder's: it must survive this object.
        isExclusive = false;
        deleteOnDestruction = false;
        lockError = opened.error;
        holder = opened.holder;
        return {};
    }
    if (folder) {
        if (!opened.isNew) {
            examineGroupFile(opened.status);
        }
    } else if (!trustee.empty()) {
        const std::string path = parentPath + name;
        try {
            setTrusteeOfOpenFile(opened.lock.get(), path, trustee);
        } catch (...) {
            if (opened.isNew) {
                removeFile(path, path);
            }
            throw;
        }
    }
    identity = opened.identity;
    return std::move(opened.lock);
}

void LockedFile::Impl::examineGroupFile(const struct stat& status) const {
    if (!os::isUsableByGroup(status, folder->group())) {
        getLogger().log(severity::error,
                        "LockedFile::lockFile(): The file does not belong to the group: <",
                        parentPath, name, ">. (Error ", EPERM, ")");
        throw std::runtime_error(inconsistency);
    }
}

void LockedFile::Impl::unlockAndCloseFile() noexcept {
    // Descriptor 0 is a process's standard input to all code around; where a lock landed on it,
    // it is left alone.
    if (lock.get() == 0) {
        lock.leaveOpen();
    } else {
        lock.release();
    }
}

std::string LockedFile::Impl::getTrustee() const {
    struct stat status {};
    if (::stat(parentPath.c_str(), &status) != 0) {
        const int error = errno;
        getLogger().log(severity::error, "getTrustee(): Failed to stat the path: <", parentPath,
                        ">. (Error ", error, ")");
        throw std::runtime_error(inconsistency);
    }
    if ((status.st_mode & S_IRWXG) != S_IRWXG) {
        return {};
    }
    auto group = os::findGroupName(status.st_gid);
    if (!group) {
        const int error = errno;
        getLogger().log(severity::error, "getTrustee(): Failed to get the group struct for: <",
                        parentPath, ">. (Error ", error, ")");
        throw std::runtime_error(inconsistency);
    }
    return std::move(*group);
}

void LockedFile::Impl::removeFile(const os::PathAt& where, const std::string& path) {
    const auto remove = [&where](int flags) {
        return ::unlinkat(where.folder, where.name.c_str(), flags) == 0;
    };
    if (remove(0) || (errno == EISDIR && remove(AT_REMOVEDIR)) || errno == ENOENT ||
        errno == ESTALE) {
        return;
    }
    const int error = errno;
    getLogger().log(severity::error, "LockedFile::destruct(): Failed to delete file: <", path,
                    ">. (Error ", error, ")");
}

} // namespace agent::spf::endpointregistry
