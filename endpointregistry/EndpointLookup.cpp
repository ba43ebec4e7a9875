#include "endpointregistry/Endpoint.h"
#include "endpointregistry/Groups.h"
#include "endpointregistry/detail/EndpointImpl.h"

namespace agent::spf::endpointregistry {

namespace {

/// The caller's own entries.
const std::string local;

std::set<std::string> getAllTrustees() {
    std::set<std::string> trustees = getCurrentUserGroups();
    trustees.insert(local);
    return trustees;
}

/// A published entry never has two empty strings; a read that yields them found none.
bool isEntry(const Endpoint::DataPair& data) {
    return !data.first.empty() || !data.second.empty();
}

} // namespace

// By value is the published signature of the trustee sets.
// NOLINTBEGIN(performance-unnecessary-value-param)

std::optional<Endpoint::DataPair> Endpoint::find(const std::string& groupTag,
                                                 const std::string& selectedKey,
                                                 std::set<std::string> trustees) {
    for (const std::string& trustee : trustees) {
        for (const std::string& name : Impl::findNames(groupTag, selectedKey, trustee)) {
            if (DataPair data = Impl::getDataPair(name, trustee); isEntry(data)) {
                return data;
            }
        }
    }
    return std::nullopt;
}

std::vector<Endpoint::DataPair>
Endpoint::filterUsingEmptySpaceAsGroupTagWildcard(const std::string& groupTag,
                                                  std::set<std::string> trustees) {
    std::set<DataPair> found;
    for (const std::string& trustee : trustees) {
        for (DataPair& data : Impl::getDataPairs(Impl::filterNames(groupTag, trustee), trustee)) {
            if (isEntry(data)) {
                found.insert(std::move(data));
            }
        }
    }
    return {found.begin(), found.end()};
}

std::vector<Endpoint::DataPair> Endpoint::filter(const std::string& groupTag,
                                                 std::set<std::string> trustees) {
    if (groupTag.empty()) {
        return {};
    }
    return filterUsingEmptySpaceAsGroupTagWildcard(groupTag, std::move(trustees));
}

std::vector<Endpoint::DataPair> Endpoint::list(std::set<std::string> trustees) {
    return filterUsingEmptySpaceAsGroupTagWildcard({}, std::move(trustees));
}

// NOLINTEND(performance-unnecessary-value-param)

std::optional<Endpoint::DataPair> Endpoint::findFromLocal(const std::string& groupTag,
                                                          const std::string& selectedKey) {
    return find(groupTag, selectedKey, {local});
}

std::optional<Endpoint::DataPair> Endpoint::find(const std::string& groupTag,
                                                 const std::string& selectedKey) {
    return findFromLocal(groupTag, selectedKey);
}

std::optional<Endpoint::DataPair> Endpoint::findFromAllTrustees(const std::string& groupTag,
                                                                const std::string& selectedKey) {
    return find(groupTag, selectedKey, getAllTrustees());
}

std::vector<Endpoint::DataPair> Endpoint::filterFromLocal(const std::string& groupTag) {
    return filter(groupTag, {local});
}

std::vector<Endpoint::DataPair> Endpoint::filter(const std::string& groupTag) {
    return filterFromLocal(groupTag);
}

std::vector<Endpoint::DataPair> Endpoint::filterFromAllTrustees(const std::string& groupTag) {
    return filter(groupTag, getAllTrustees());
}

std::vector<Endpoint::DataPair> Endpoint::listFromLocal() {
    return list({local});
}

std::vector<Endpoint::DataPair> Endpoint::list() {
    return listFromLocal();
}

std::vector<Endpoint::DataPair> Endpoint::listFromAllTrustees() {
    return list(getAllTrustees());
}

} // namespace agent::spf::endpointregistry
