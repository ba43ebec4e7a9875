#include "endpointregistry/detail/StaleFile.h"

#include "endpointregistry/Loggers.h"
#include "endpointregistry/detail/LockedFileImpl.h"
#include "endpointregistry/detail/LockingOpen.h"
#include "foundation/os/RetryFor.h"
#include "foundation/os/RetryOnInterrupt.h"

#include <cerrno>
#include <chrono>
#include <fcntl.h>
#include <stdexcept>
#include <sys/file.h>
#include <utility>

namespace agent::spf::endpointregistry {

namespace {

namespace os = foundation::os;

/// Not waiting without end, since a process that was stopped while it cleared up, or any other of
/// the same user or group, may hold the lock for long.
LockedDescriptor lockFolder(const OpenFolder& open, std::chrono::milliseconds timeout) {
    // A file of its own, since others may look through the folder that is open.
    const os::PathAt where = open.at(".");
    os::FileDescriptor folder(os::retryOnInterrupt([&] {
        return ::openat(where.folder, where.name.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    }));
    const bool isLocked = folder && os::retryFor(timeout, [&folder] {
                              return os::retryOnInterrupt([&] {
                                         return ::flock(folder.get(), LOCK_EX | LOCK_NB);
                                     }) == 0;
                          });
    return isLocked ? LockedDescriptor(std::move(folder)) : LockedDescriptor();
}

} // namespace

void failIfNotAsked(int error, const OpenFolder& folder, const std::string& name) {
    if (error == EMFILE || error == ENFILE || error == ENOMEM) {
        getLogger().log(foundation::log::severity::error,
                        "LockedFile::isLocked(): Failed to open file: <", folder.path(), name,
                        ">. (Error ", error, ")");
        throw std::runtime_error("System Error: File system inconsistency");
    }
}

StaleFile::StaleFile(const std::string& name, const OpenFolder& folder,
                     std::chrono::milliseconds timeout)
    : folder(folder)
    , where(folder.at(name)) {
    // Nothing is held while the folder's lock is waited for: a publisher that wants the file takes
    // those who share its lock for gone in a moment. So the file is examined again under it, also
    // since somebody else may have cleared it up before.
    if (!examine()) {
        return;
    }
    fileLock.release();
    folderLock = lockFolder(folder, timeout);
    if (!folderLock) {
        found = Finding::busy;
    } else if (!examine()) {
        folderLock.release();
    }
}

bool StaleFile::examine() {
    LockingOpen opened = openAndShareLock(where);
    failIfNotAsked(opened.error, folder, where.name);
    fileLock = std::move(opened.lock);
    found = opened.error == 0        ? Finding::stale
            : opened.error == ENOENT ? Finding::nothingToClear
                                     : Finding::inUse;
    return found == Finding::stale;
}

void StaleFile::remove() {
    LockedFile::Impl::removeFile(where, folder.path() + where.name);
}

} // namespace agent::spf::endpointregistry
