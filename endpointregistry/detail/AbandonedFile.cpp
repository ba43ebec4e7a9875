#include "endpointregistry/detail/AbandonedFile.h"

#include "endpointregistry/detail/BriefWait.h"
#include "endpointregistry/detail/LockedFileImpl.h"
#include "endpointregistry/detail/LockingOpen.h"
#include "foundation/os/FileIdentity.h"
#include "foundation/os/RetryOnInterrupt.h"

#include <cerrno>
#include <chrono>
#include <fcntl.h>
#include <sys/file.h>
#include <utility>

namespace agent::spf::endpointregistry {

namespace {

namespace os = foundation::os;

/// Not waiting without end, since a process that was stopped while it cleared up, or any other of
/// the same user or group, may hold the lock for long.
LockedDescriptor lockFolder(const OpenFolder& open) {
    constexpr auto patience = std::chrono::milliseconds(20);
    // A file of its own, since others may look through the folder that is open.
    const os::FilePlace place = open.placeOf(".");
    os::FileDescriptor folder(os::retryOnInterrupt([&] {
        return ::openat(place.folder, place.name.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    }));
    const bool isLocked = folder && tryBriefly(patience, [&folder] {
                              return os::retryOnInterrupt([&] {
                                         return ::flock(folder.get(), LOCK_EX | LOCK_NB);
                                     }) == 0;
                          });
    return isLocked ? LockedDescriptor(std::move(folder)) : LockedDescriptor();
}

} // namespace

AbandonedFile::AbandonedFile(const std::string& name, const OpenFolder& folder)
    : folder(folder)
    , place(folder.placeOf(name)) {
    for (;;) {
        LockingOpen opened = openAndShareLock(place);
        if (opened.error != 0) {
            found = opened.error == ENOENT ? Finding::nothingToClear : Finding::inUse;
            return;
        }
        folderLock = lockFolder(folder);
        if (!folderLock) {
            return;
        }
        // Somebody else may have cleared it up before the folder's lock was free.
        if (os::identityAt(place) == opened.identity) {
            fileLock = std::move(opened.lock);
            found = Finding::abandoned;
            return;
        }
        folderLock.release();
    }
}

void AbandonedFile::remove() {
    LockedFile::Impl::removeFile(place, folder.path() + place.name);
}

} // namespace agent::spf::endpointregistry
