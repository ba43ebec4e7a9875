#pragma once

#include "endpointregistry/Endpoint.h"
#include "endpointregistry/detail/EntryFolder.h"

#include <set>
#include <string>
#include <vector>

namespace agent::spf::endpointregistry {

/// The private entries that a publication meets: those with its group tag and either its selected
/// key or its joined data, dead ones included. Each question reads the folder anew.
class Synonyms {
public:
    /// The folder of the private entries must outlive this.
    Synonyms(const Endpoint::DataPair& data, const std::string& groupTag,
             const std::string& selectedKey, const EntryFolder& folder);

    /// What the names of this group tag and of this selected key have.
    const std::string& tagPrefix() const { return sameTag; }
    const std::string& keyPart() const { return sameKey; }

    std::set<std::string> names() const;

    /// How many of them are alive; one that has vanished since it was listed counts as well.
    unsigned long count() const;

    /// Whether any of them is alive and still there. A dead one that a reader clears away after it
    /// was listed is no reason to refuse a publisher.
    bool anyLives() const;

    /// Whether this entry of the caller's is there and nothing else counts as alive.
    bool hasOnly(const std::string& ownName) const;

private:
    std::vector<std::string> listed() const;

    const EntryFolder& folder;
    std::string sameTag;
    std::string sameKey;
    std::string sameData;
};

} // namespace agent::spf::endpointregistry
