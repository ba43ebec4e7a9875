#include "endpointregistry/detail/JoinedRegistry.h"

#include "endpointregistry/detail/JoinedFolder.h"
#include "endpointregistry/detail/LockedFileImpl.h"

#include <memory>
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
        // A lock on what nobody comes to by the path keeps nobody out.
        if (impl->isStillNamed()) {
            return LockedFile::Impl::wrap(std::move(impl));
        }
    }
}

} // namespace

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
