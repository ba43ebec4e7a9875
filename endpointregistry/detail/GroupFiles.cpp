#include "endpointregistry/detail/GroupFiles.h"

#include "endpointregistry/detail/GroupFolder.h"
#include "endpointregistry/detail/LockedFileImpl.h"
#include "endpointregistry/detail/LockingOpen.h"

#include <memory>
#include <utility>

namespace agent::spf::endpointregistry::groupfiles {

namespace os = foundation::os;

namespace {

enum class Levels { asTheyAre, openedToEverybody };

std::unique_ptr<LockedFile::Impl> lock(const std::string& name, const std::string& parent,
                                       const os::Group& trustee, bool isExclusive, Waiting waiting,
                                       Levels levels, std::string_view contents = {}) {
    if (trustee.isNone() || parent.empty()) { // The latter is refused there.
        return std::make_unique<LockedFile::Impl>(name, parent, trustee.name(), isExclusive,
                                                  waiting);
    }
    for (;;) {
        GroupFolder folder = levels == Levels::asTheyAre
                                 ? GroupFolder::openOrCreate(parent, trustee)
                                 : GroupFolder::openOrRestore(parent, trustee);
        auto impl = std::make_unique<LockedFile::Impl>(name, std::move(folder), trustee.name(),
                                                       isExclusive, waiting, contents);
        // A lock on what nobody comes to by the path keeps nobody out.
        if (impl->isStillNamed()) {
            return impl;
        }
    }
}

} // namespace

LockedFile createAndTryLock(const std::string& name, const std::string& parent,
                            const os::Group& trustee, std::string_view contents) {
    return LockedFile::Impl::wrap(
        lock(name, parent, trustee, true, Waiting::never(), Levels::openedToEverybody, contents));
}

LockedFile getLock(const std::string& name, const std::string& parent, const os::Group& trustee) {
    return LockedFile::Impl::wrap(
        lock(name, parent, trustee, false, Waiting::forLock(), Levels::asTheyAre));
}

LockOrHolder getLockWithin(const std::string& name, const std::string& parent,
                           const os::Group& trustee, Waiting waiting) {
    auto impl = lock(name, parent, trustee, false, waiting, Levels::asTheyAre);
    const pid_t holder = impl->getHolder();
    return {LockedFile::Impl::wrap(std::move(impl)), holder};
}

LockedFile tryLock(const std::string& name, const std::string& parent, const os::Group& trustee) {
    return LockedFile::Impl::wrap(
        lock(name, parent, trustee, false, Waiting::never(), Levels::openedToEverybody));
}

std::optional<OpenFolder> tryOpenFolder(const std::string& parent, const os::Group& trustee) {
    return trustee.isNone() ? OpenFolder::findPrivate(parent)
                            : GroupFolder::tryOpen(parent, trustee);
}

} // namespace agent::spf::endpointregistry::groupfiles
