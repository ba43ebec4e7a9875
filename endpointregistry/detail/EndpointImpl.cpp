#include "endpointregistry/detail/EndpointImpl.h"

#include "endpointregistry/EntryName.h"
#include "endpointregistry/Groups.h"
#include "endpointregistry/detail/EndpointPosixImpl.h"

#include <algorithm>

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
    return LockedFile::filterNames({getGroupTagPrefix(groupTag)}, LF_PARENT_PATH, trustee);
}

std::vector<std::string> Endpoint::Impl::findNames(const std::string& groupTag,
                                                   const std::string& selectedKey,
                                                   const std::string& trustee) {
    return LockedFile::filterNames(
        {getGroupTagPrefix(groupTag), getSelectedKeySubstring(selectedKey)}, LF_PARENT_PATH,
        trustee);
}

Endpoint::DataPair Endpoint::Impl::getDataPair(const std::string& name,
                                               const std::string& trustee) {
    // Entries shared with a group are not stored yet, so none can be read.
    return trustee.empty() ? PosixImpl::getDataPair(name, trustee) : DataPair();
}

} // namespace agent::spf::endpointregistry
