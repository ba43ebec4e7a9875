#include "endpointregistry/detail/EntryFolder.h"

#include "endpointregistry/Loggers.h"
#include "endpointregistry/detail/AbandonedFile.h"
#include "endpointregistry/detail/EndpointImpl.h"
#include "endpointregistry/detail/JoinedRegistry.h"
#include "endpointregistry/detail/LockingOpen.h"

#include <cerrno>
#include <stdexcept>

namespace agent::spf::endpointregistry {

const OpenFolder* EntryFolder::folder() const {
    if (!isFolderKnown) {
        found = joined::findFolder(Endpoint::Impl::LF_PARENT_PATH, group);
        isFolderKnown = true;
    }
    return found ? &*found : nullptr;
}

std::vector<std::string> EntryFolder::names(const std::vector<std::string>& nameParts) const {
    const OpenFolder* const open = folder();
    return open != nullptr ? open->names(nameParts) : std::vector<std::string>();
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
