#include "endpointregistry/detail/EntryFolder.h"

#include "endpointregistry/Loggers.h"
#include "endpointregistry/detail/AbandonedFile.h"
#include "endpointregistry/detail/JoinedRegistry.h"
#include "endpointregistry/detail/LockedFileImpl.h"
#include "endpointregistry/detail/LockingOpen.h"

#include <cerrno>
#include <memory>
#include <stdexcept>
#include <utility>

namespace agent::spf::endpointregistry {

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

EntryFolder::Publisher EntryFolder::publisherOf(const std::string& name) const {
    const OpenFolder* const open = folder();
    const int error = open != nullptr ? openAndShareLock(open->placeOf(name)).error : ENOENT;
    switch (error) {
    case ENOENT:
        return Publisher::vanished;
    case EWOULDBLOCK:
        return Publisher::alive;
    case EMFILE:
    case ENFILE:
    case ENOMEM:
        // To take it for dead would let a publisher try again and again.
        getLogger().log(foundation::log::severity::error,
                        "LockedFile::isLocked(): Failed to open file: <", open->path(), name,
                        ">. (Error ", error, ")");
        throw std::runtime_error("System Error: File system inconsistency");
    default:
        return Publisher::dead;
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
    AbandonedFile file(name, *open);
    if (file.finding() == AbandonedFile::Finding::abandoned) {
        removeData();
        file.remove();
    }
    return file.finding() != AbandonedFile::Finding::inUse;
}

} // namespace agent::spf::endpointregistry
