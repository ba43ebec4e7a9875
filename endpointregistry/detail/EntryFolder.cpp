#include "endpointregistry/detail/EntryFolder.h"

#include "endpointregistry/detail/AbandonedFile.h"
#include "endpointregistry/detail/JoinedRegistry.h"
#include "endpointregistry/detail/LockedFileImpl.h"
#include "endpointregistry/detail/LockingOpen.h"

#include <cerrno>
#include <chrono>
#include <fcntl.h>
#include <memory>
#include <sys/stat.h>
#include <utility>

namespace agent::spf::endpointregistry {

using namespace std::chrono_literals;

const OpenFolder* EntryFolder::folder() const {
    // That there was none is not remembered: the first entry makes it.
    if (!found) {
        found = joined::findFolder(parent, group);
    }
    return found ? &*found : nullptr;
}

std::vector<std::string> EntryFolder::names(const NameTest& isWanted) const {
    const OpenFolder* const open = folder();
    return open != nullptr ? open->names(isWanted) : std::vector<std::string>();
}

bool EntryFolder::anyName(const NameTest& isWanted) const {
    const OpenFolder* const open = folder();
    return open != nullptr && open->anyName(isWanted);
}

EntryFolder::Publisher EntryFolder::publisherOf(const std::string& name) const {
    const OpenFolder* const open = folder();
    if (open == nullptr) {
        return Publisher::vanished;
    }
    const int error = openAndShareLock(open->placeOf(name)).error;
    failIfNotAsked(error, *open, name);
    switch (error) {
    case ENOENT:
        return Publisher::vanished;
    case EWOULDBLOCK:
        return Publisher::alive;
    default:
        return Publisher::dead;
    }
}

std::optional<foundation::os::FileIdentity> EntryFolder::identityOf(const std::string& name) const {
    const OpenFolder* const open = folder();
    return open != nullptr ? foundation::os::identityAt(open->placeOf(name)) : std::nullopt;
}

void EntryFolder::tellReady(const std::string& name) const noexcept {
    try {
        if (const OpenFolder* const open = folder()) {
            // By name, for that is how watchers are told of it.
            const foundation::os::FilePlace place = open->placeOf(name);
            ::utimensat(place.folder, place.name.c_str(), nullptr, AT_SYMLINK_NOFOLLOW);
        }
    } catch (...) { // NOLINT(bugprone-empty-catch): as the header says
    }
}

LockedFile EntryFolder::lock(const std::string& name, bool isNew) const {
    if (const OpenFolder* const open = group.isNone() ? folder() : nullptr) {
        auto impl = std::make_unique<LockedFile::Impl>(name, *open, isNew);
        if (impl->getLockError() != ENOENT) {
            return LockedFile::Impl::wrap(std::move(impl));
        }
        // Somebody has removed the folder since it was opened.
        found.reset();
    }
    return isNew ? joined::createAndTryLock(name, parent, group)
                 : joined::tryLock(name, parent, group);
}

bool EntryFolder::clearIfStale(const std::string& name,
                               const std::function<void()>& removeData) const {
    const OpenFolder* const open = folder();
    if (open == nullptr) {
        return true;
    }
    // Who was waited for in vain once is not waited for again with every other dead entry.
    AbandonedFile file(name, *open, isHeldUp ? 0ms : AbandonedFile::usualPatience);
    isHeldUp = isHeldUp || file.finding() == AbandonedFile::Finding::heldUp;
    if (file.finding() == AbandonedFile::Finding::abandoned) {
        removeData();
        file.remove();
    }
    return file.finding() != AbandonedFile::Finding::inUse;
}

} // namespace agent::spf::endpointregistry
