#include "endpointregistry/detail/JoinedRegistry.h"

#include "endpointregistry/detail/JoinedFolder.h"
#include "endpointregistry/detail/LockedFileImpl.h"

#include "endpointregistry/detail/LockingOpen.h"
#include "foundation/os/AppearingFolder.h"
#include "foundation/os/FileIdentity.h"
#include "foundation/os/RetryOnInterrupt.h"

#include <fcntl.h>
#include <memory>
#include <sys/file.h>
#include <sys/stat.h>
#include <utility>

namespace agent::spf::endpointregistry::joined {

namespace os = foundation::os;

namespace {

enum class Levels { asTheyAre, openedToEverybody };

LockedFile lock(const std::string& name, const std::string& parent, const os::Group& trustee,
                bool isExclusive, bool waitForLock, Levels levels) {
    if (trustee.isNone() || parent.empty()) { // The latter is refused there.
        return {name, parent, trustee.name(), isExclusive, waitForLock};
    }
    for (;;) {
        JoinedFolder folder = levels == Levels::asTheyAre ? JoinedFolder::enter(parent, trustee)
                                                          : JoinedFolder::obtain(parent, trustee);
        auto impl = std::make_unique<LockedFile::Impl>(name, std::move(folder), trustee.name(),
                                                       isExclusive, waitForLock);
        // A lock in a folder that was put elsewhere keeps nobody out.
        if (impl->isFolderStillNamed()) {
            return LockedFile::Impl::wrap(std::move(impl));
        }
    }
}

/// Locks a group's file without a look at its folder; empty when anything is out of the ordinary.
///
/// Who is no member cannot make such a file, nor link to one in a folder that is closed to him. So
/// a file that is a member's, with the group and the mode, tells as much as its folder would.
LockedDescriptor lockStraight(const std::string& path, const os::Group& trustee) {
    os::FileDescriptor file = os::openThroughNoLink(path, O_RDONLY | O_NONBLOCK);
    constexpr mode_t permissions = S_IRWXU | S_IRWXG | S_IRWXO;
    struct stat status {};
    const bool isShared = file && ::fstat(file.get(), &status) == 0 && S_ISREG(status.st_mode) &&
                          (status.st_mode & permissions) == groupFileMode &&
                          trustee.id() == status.st_gid && trustee.trusts(status.st_uid) == true;
    // Not before that is known: a stranger could hold a file of his own for ever.
    if (!isShared || os::retryOnInterrupt([&] { return ::flock(file.get(), LOCK_EX); }) != 0) {
        return {};
    }
    LockedDescriptor lock(std::move(file));
    // Whoever else comes by this path must come to the same file.
    const bool isMeant = os::identityAt(path) == os::FileIdentity(status);
    return isMeant ? std::move(lock) : LockedDescriptor();
}

} // namespace

LockedFile getLockOnly(const std::string& name, const std::string& parent,
                       const os::Group& trustee) {
    if (trustee.isNone()) {
        return getLock(name, parent, trustee);
    }
    std::string folder = JoinedFolder::pathOf(parent, trustee);
    LockedDescriptor lock = lockStraight(folder + name, trustee);
    if (!lock) {
        return getLock(name, parent, trustee);
    }
    return LockedFile::Impl::wrap(std::make_unique<LockedFile::Impl>(
        name, trustee.name(), std::move(folder), std::move(lock)));
}

LockedFile createAndTryLock(const std::string& name, const std::string& parent,
                            const os::Group& trustee) {
    return lock(name, parent, trustee, true, false, Levels::openedToEverybody);
}

LockedFile getLock(const std::string& name, const std::string& parent, const os::Group& trustee) {
    return lock(name, parent, trustee, false, true, Levels::asTheyAre);
}

LockedFile tryLock(const std::string& name, const std::string& parent, const os::Group& trustee) {
    return lock(name, parent, trustee, false, false, Levels::openedToEverybody);
}

std::optional<OpenFolder> findFolder(const std::string& parent, const os::Group& trustee) {
    return trustee.isNone() ? OpenFolder::findPrivate(parent) : JoinedFolder::find(parent, trustee);
}

} // namespace agent::spf::endpointregistry::joined
