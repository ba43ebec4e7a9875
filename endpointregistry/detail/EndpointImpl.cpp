#include "endpointregistry/detail/EndpointImpl.h"

#include "endpointregistry/EntryName.h"
#include "endpointregistry/Groups.h"
#include "endpointregistry/Loggers.h"
#include "endpointregistry/detail/EndpointPosixImpl.h"
#include "endpointregistry/detail/EndpointSysVImpl.h"
#include "endpointregistry/detail/EntryHint.h"
#include "endpointregistry/detail/NameListing.h"
#include "endpointregistry/detail/Synonyms.h"
#include "foundation/os/Process.h"
#include "foundation/os/RetryFor.h"

#include <cerrno>
#include <chrono>
#include <functional>
#include <stdexcept>
#include <string_view>
#include <unistd.h>

namespace agent::spf::endpointregistry {

namespace {

constexpr unsigned long formatVersion = 0;

std::vector<std::string> namesIn(const EntryFolder& folder, const std::string& groupTag) {
    const std::string sameTag = getGroupTagPrefix(groupTag);
    return folder.names([&](std::string_view name) { return contains(name, sameTag); });
}

/// The test for names of one group tag and one selected key.
struct HasTagAndKey {
    HasTagAndKey(const std::string& groupTag, const std::string& selectedKey)
        : sameTag(getGroupTagPrefix(groupTag))
        , sameKey(getSelectedKeySubstring(selectedKey)) {}

    bool operator()(std::string_view name) const {
        // The key first, which fewer names have.
        return contains(name, sameKey) && contains(name, sameTag);
    }

    std::string sameTag;
    std::string sameKey;
};

} // namespace

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
    const EntryFolder folder({});
    return Synonyms(data, groupTag, selectedKey, folder).names();
}

unsigned long Endpoint::Impl::countSynonymEndpoints(const DataPair& data,
                                                    const std::string& groupTag,
                                                    const std::string& selectedKey) {
    const EntryFolder folder({});
    return Synonyms(data, groupTag, selectedKey, folder).count();
}

std::vector<std::string> Endpoint::Impl::filterNames(const std::string& groupTag,
                                                     const std::string& trustee) {
    return namesIn(EntryFolder(trustee), groupTag);
}

std::vector<std::string> Endpoint::Impl::findNames(const std::string& groupTag,
                                                   const std::string& selectedKey,
                                                   const std::string& trustee) {
    return EntryFolder(trustee).names(HasTagAndKey(groupTag, selectedKey));
}

Endpoint::DataPair Endpoint::Impl::getDataPair(const std::string& name,
                                               const std::string& trustee) {
    const std::vector<DataPair> data = getDataPairs({name}, EntryFolder(trustee));
    return data.empty() ? DataPair() : data.front();
}

std::optional<Endpoint::DataPair> Endpoint::Impl::findDataPair(const std::string& groupTag,
                                                               const std::string& selectedKey,
                                                               const std::string& trustee) {
    const EntryFolder folder(trustee);
    const HasTagAndKey isWanted(groupTag, selectedKey);
    if (folder.trustee().isNone()) {
        // An empty text stands for any, of which no hint tells.
        if (!groupTag.empty() && !selectedKey.empty()) {
            const EntryHint hint(folder.privateBase(), isWanted.sameTag, isWanted.sameKey);
            if (auto data = PosixImpl::findHinted(hint, std::ref(isWanted), folder)) {
                return data;
            }
        }
        return PosixImpl::findDataPair(std::ref(isWanted), folder);
    }
    return SysVImpl::findDataPair(std::ref(isWanted), folder);
}

std::vector<Endpoint::DataPair> Endpoint::Impl::filterDataPairs(const std::string& groupTag,
                                                                const std::string& trustee) {
    const EntryFolder folder(trustee);
    return getDataPairs(namesIn(folder, groupTag), folder);
}

std::vector<Endpoint::DataPair> Endpoint::Impl::getDataPairs(const std::vector<std::string>& names,
                                                             const EntryFolder& folder) {
    if (!folder.trustee().isNone()) {
        return SysVImpl::getDataPairs(names, folder, names.size());
    }
    std::vector<DataPair> pairs;
    for (const std::string& name : names) {
        if (DataPair data = PosixImpl::getDataPair(name, folder); isReadable(data)) {
            pairs.push_back(std::move(data));
        }
    }
    return pairs;
}

LockedFile Endpoint::Impl::lockEntryFile(const EntryFolder& folder,
                                         const std::function<bool()>& removeData,
                                         std::chrono::milliseconds timeout,
                                         std::string_view contents) const {
    // Nearly always the name is new. If it is not, its holder may be dead: an earlier program of
    // this process, or one whose process id was given out again. Or it may go between two attempts.
    LockedFile file = folder.createLocked(name, contents);
    bool isStale = false;
    if (!file.isLocked()) {
        foundation::os::retryFor(timeout, [&] {
            isStale = folder.clearIfStale(name, removeData);
            file = folder.createLocked(name, contents);
            const bool isInTheWay =
                file.getLockError() == EEXIST || file.getLockError() == EWOULDBLOCK;
            return file.isLocked() || !isStale || !isInTheWay;
        });
    }
    if (!file.isLocked()) {
        failToLock(file.getLockError(), isStale);
    }
    return file;
}

void Endpoint::Impl::failToLock(int error, bool isStale) const {
    const bool isTaken = !isStale && (error == EEXIST || error == EWOULDBLOCK ||
                                      LockedFile::exists(name, LF_PARENT_PATH, trustee));
    if (isTaken) {
        throw DuplicateEndpointError(
            "A synonym endpoint was found while trying to create the locked file");
    }
    getLogger().log(foundation::log::severity::error,
                    "Endpoint::Impl::createLockedFile(): Failed to create file: <",
                    LockedFile::getParentPath(LF_PARENT_PATH, trustee, false) + name, ">. (Error ",
                    error, ")");
    throw std::runtime_error("System Error: File system inconsistency");
}

bool Endpoint::Impl::hasKnownVersion(const std::string& name) {
    return getVersionFromName(name) == formatVersion;
}

bool Endpoint::Impl::isPublisherGone(const std::string& name) {
    const auto publisher = static_cast<pid_t>(getPidFromName(name));
    return publisher != ::getpid() && !foundation::os::processLives(publisher);
}

} // namespace agent::spf::endpointregistry
