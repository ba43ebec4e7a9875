#include "endpointregistry/detail/EndpointImpl.h"

#include "endpointregistry/EntryName.h"
#include "endpointregistry/Groups.h"
#include "endpointregistry/Loggers.h"
#include "endpointregistry/detail/EndpointPosixImpl.h"
#include "endpointregistry/detail/EndpointSysVImpl.h"
#include "endpointregistry/detail/JoinedRegistry.h"
#include "foundation/os/Process.h"

#include <algorithm>
#include <cerrno>
#include <stdexcept>
#include <unistd.h>

namespace agent::spf::endpointregistry {

namespace {

constexpr unsigned long formatVersion = 0;

} // namespace

const std::string Endpoint::Impl::LF_PARENT_PATH = "qvEndpointRegistry";

Endpoint::Impl::Impl(const DataPair& data, const std::string& groupTag,
                     const std::string& selectedKey, const std::string& trustee)
    : trustee(checkTrustee(trustee))
    , groupTag(groupTag)
    , selectedKey(selectedKey)
    , name(getName(data, groupTag, selectedKey, formatVersion, trustee)) {
}

std::set<std::string> Endpoint::Impl::getAllSynonymNames(const DataPair& data,
                                                         const std::string& groupTag,
                                                         const std::string& selectedKey) {
    const std::string sameKey = getSelectedKeySubstring(selectedKey);
    const std::string sameData = getExtendedPrefix(data, groupTag);
    // The extended prefix begins with the group tag's, so one reading of the folder serves both.
    std::set<std::string> synonyms;
    for (std::string& name : filterNames(groupTag, {})) {
        if (containsAll(name, {sameKey}) || containsAll(name, {sameData})) {
            synonyms.insert(std::move(name));
        }
    }
    return synonyms;
}

unsigned long Endpoint::Impl::countSynonymEndpoints(const DataPair& data,
                                                    const std::string& groupTag,
                                                    const std::string& selectedKey) {
    const std::set<std::string> names = getAllSynonymNames(data, groupTag, selectedKey);
    return static_cast<unsigned long>(
        std::count_if(names.begin(), names.end(), [](const std::string& name) {
            return LockedFile::isLocked(name, LF_PARENT_PATH, {});
        }));
}

bool Endpoint::Impl::hasLivingSynonym(const DataPair& data, const std::string& groupTag,
                                      const std::string& selectedKey) {
    // What vanished may have been replaced, so that is a reason to look again.
    for (bool hasVanished = true; hasVanished;) {
        hasVanished = false;
        for (const std::string& name : getAllSynonymNames(data, groupTag, selectedKey)) {
            if (!LockedFile::isLocked(name, LF_PARENT_PATH, {})) {
                continue;
            }
            if (LockedFile::exists(name, LF_PARENT_PATH, {})) {
                return true;
            }
            hasVanished = true;
        }
    }
    return false;
}

std::vector<std::string> Endpoint::Impl::filterNames(const std::string& groupTag,
                                                     const std::string& trustee) {
    return joined::filterNames({getGroupTagPrefix(groupTag)}, LF_PARENT_PATH, trustee);
}

std::vector<std::string> Endpoint::Impl::findNames(const std::string& groupTag,
                                                   const std::string& selectedKey,
                                                   const std::string& trustee) {
    return joined::filterNames({getGroupTagPrefix(groupTag), getSelectedKeySubstring(selectedKey)},
                               LF_PARENT_PATH, trustee);
}

Endpoint::DataPair Endpoint::Impl::getDataPair(const std::string& name,
                                               const std::string& trustee) {
    return trustee.empty() ? PosixImpl::getDataPair(name, trustee)
                           : SysVImpl::getDataPair(name, trustee);
}

std::vector<Endpoint::DataPair> Endpoint::Impl::getDataPairs(const std::vector<std::string>& names,
                                                             const std::string& trustee) {
    if (!trustee.empty()) {
        return SysVImpl::getDataPairs(names, trustee);
    }
    std::vector<DataPair> pairs;
    pairs.reserve(names.size());
    for (const std::string& name : names) {
        pairs.push_back(PosixImpl::getDataPair(name, trustee));
    }
    return pairs;
}

LockedFile Endpoint::Impl::lockEntryFile(const std::function<void()>& clearLeftovers) const {
    LockedFile file = joined::tryLock(name, LF_PARENT_PATH, trustee);
    if (file.isLocked()) {
        // New, or left by a dead publisher of this very name: an earlier program of this process,
        // or one whose process id was given out again.
        file.markForDeletion();
        clearLeftovers();
        return file;
    }
    // The holder may have gone meanwhile.
    file = joined::createAndTryLock(name, LF_PARENT_PATH, trustee);
    if (file.isLocked()) {
        return file;
    }
    const int error = file.getLockError();
    const bool isTaken = error == EEXIST || error == EWOULDBLOCK ||
                         LockedFile::exists(name, LF_PARENT_PATH, trustee);
    if (!isTaken) {
        getLogger().log(foundation::log::severity::error,
                        "Endpoint::Impl::createLockedFile(): Failed to create file: <",
                        LockedFile::getParentPath(LF_PARENT_PATH, trustee, false) + name,
                        ">. (Error ", error, ")");
        throw std::runtime_error("System Error: File system inconsistency");
    }
    throw DuplicateEndpointError(
        "A synonym endpoint was found while trying to create the locked file");
}

bool Endpoint::Impl::hasKnownVersion(const std::string& name) {
    return getVersionFromName(name) == formatVersion;
}

bool Endpoint::Impl::isPublisherGone(const std::string& name) {
    const auto publisher = static_cast<pid_t>(getPidFromName(name));
    return publisher != ::getpid() && !foundation::os::processLives(publisher);
}

} // namespace agent::spf::endpointregistry
