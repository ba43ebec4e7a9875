#include "endpointregistry/detail/JoinedRegistry.h"

#include "endpointregistry/detail/JoinedFolder.h"
#include "endpointregistry/detail/LockedFileImpl.h"
#include "endpointregistry/detail/NameListing.h"

#include <memory>
#include <optional>
#include <utility>

namespace agent::spf::endpointregistry::joined {

namespace {

LockedFile lock(const std::string& name, const std::string& parent, const std::string& trustee,
                bool isExclusive, bool waitForLock) {
    if (trustee.empty() || parent.empty()) { // The latter is refused there.
        return {name, parent, trustee, isExclusive, waitForLock};
    }
    for (;;) {
        auto impl = std::make_unique<LockedFile::Impl>(name, JoinedFolder::obtain(parent, trustee),
                                                       trustee, isExclusive, waitForLock);
        // A lock in a folder that was put elsewhere keeps nobody out.
        if (impl->isFolderStillNamed()) {
            return LockedFile::Impl::wrap(std::move(impl));
        }
    }
}

} // namespace

LockedFile createAndTryLock(const std::string& name, const std::string& parent,
                            const std::string& trustee) {
    return lock(name, parent, trustee, true, false);
}

LockedFile getLock(const std::string& name, const std::string& parent, const std::string& trustee) {
    return lock(name, parent, trustee, false, true);
}

LockedFile tryLock(const std::string& name, const std::string& parent, const std::string& trustee) {
    return lock(name, parent, trustee, false, false);
}

std::vector<std::string> filterNames(const std::vector<std::string>& nameParts,
                                     const std::string& parent, const std::string& trustee) {
    if (trustee.empty()) {
        return LockedFile::filterNames(nameParts, parent, trustee);
    }
    const auto folder = JoinedFolder::find(parent, trustee);
    return folder ? listNames(folder->placeOf("."), nameParts) : std::vector<std::string>();
}

} // namespace agent::spf::endpointregistry::joined
