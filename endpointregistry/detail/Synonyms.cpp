#include "endpointregistry/detail/Synonyms.h"

#include "endpointregistry/EntryName.h"
#include "endpointregistry/detail/NameListing.h"

#include <algorithm>
#include <string_view>

namespace agent::spf::endpointregistry {

namespace {

using Publisher = EntryFolder::Publisher;

} // namespace

Synonyms::Synonyms(const Endpoint::DataPair& data, const std::string& groupTag,
                   const std::string& selectedKey, const EntryFolder& folder)
    : folder(folder)
    , sameTag(getGroupTagPrefix(groupTag))
    , sameKey(getSelectedKeySubstring(selectedKey))
    , sameData(getExtendedPrefix(data, groupTag)) {
}

std::vector<std::string> Synonyms::listed() const {
    return folder.names([this](std::string_view name) {
        return contains(name, sameData) || (contains(name, sameKey) && contains(name, sameTag));
    });
}

std::set<std::string> Synonyms::names() const {
    const std::vector<std::string> found = listed();
    return {found.begin(), found.end()};
}

unsigned long Synonyms::count() const {
    const std::set<std::string> found = names();
    return static_cast<unsigned long>(
        std::count_if(found.begin(), found.end(), [this](const std::string& name) {
            return folder.publisherOf(name) != Publisher::dead;
        }));
}

bool Synonyms::anyLives() const {
    // What vanished may have been replaced, so that is a reason to look again.
    for (bool hasVanished = true; hasVanished;) {
        hasVanished = false;
        for (const std::string& name : listed()) {
            const Publisher publisher = folder.publisherOf(name);
            if (publisher == Publisher::alive) {
                return true;
            }
            hasVanished = hasVanished || publisher == Publisher::vanished;
        }
    }
    return false;
}

bool Synonyms::hasOnly(const std::string& ownName) const {
    const std::vector<std::string> found = listed();
    return std::find(found.begin(), found.end(), ownName) != found.end() &&
           std::all_of(found.begin(), found.end(), [&](const std::string& name) {
               return name == ownName || folder.publisherOf(name) == Publisher::dead;
           });
}

} // namespace agent::spf::endpointregistry
