#include "endpointregistry/Endpoint.h"

#include "endpointregistry/Groups.h"
#include "endpointregistry/detail/EndpointImpl.h"
#include "foundation/os/Accounts.h"

#include <algorithm>
#include <iterator>
#include <stdexcept>
#include <utility>

namespace agent::spf::endpointregistry {

namespace {

/// The caller's own entries.
constexpr const char* local = "";

std::set<std::string> getAllTrustees() {
    // Not by getCurrentUserGroups, which leaves out a group whose name cannot be asked for just
    // now: a lookup would say that there is nothing.
    auto trustees = foundation::os::findOwnGroupNames();
    if (!trustees) {
        getCurrentUserGroups(); // Says so where even the groups' numbers are not told.
        throw std::runtime_error("System error: Failed to get current user groups");
    }
    trustees->insert(local);
    return std::move(*trustees);
}

} // namespace

// By value is the published signature of the trustee sets.
// NOLINTBEGIN(performance-unnecessary-value-param)

std::optional<Endpoint::DataPair> Endpoint::find(const std::string& groupTag,
                                                 const std::string& selectedKey,
                                                 std::set<std::string> trustees) {
    for (const std::string& trustee : trustees) {
        if (auto data = Impl::findDataPair(groupTag, selectedKey, trustee)) {
            return data;
        }
    }
    return std::nullopt;
}

std::vector<Endpoint::DataPair>
Endpoint::filterUsingEmptySpaceAsGroupTagWildcard(const std::string& groupTag,
                                                  std::set<std::string> trustees) {
    std::vector<DataPair> found;
    for (const std::string& trustee : trustees) {
        std::vector<DataPair> data = Impl::filterDataPairs(groupTag, trustee);
        std::move(data.begin(), data.end(), std::back_inserter(found));
    }
    std::sort(found.begin(), found.end());
    found.erase(std::unique(found.begin(), found.end()), found.end());
    return found;
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
    return Impl::findDataPair(groupTag, selectedKey, local);
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
