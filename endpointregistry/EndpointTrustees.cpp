#include "endpointregistry/Endpoint.h"
#include "endpointregistry/Loggers.h"
#include "endpointregistry/detail/EndpointImpl.h"
#include "endpointregistry/detail/EndpointSysVImpl.h"

#include <algorithm>
#include <iterator>
#include <stdexcept>

namespace agent::spf::endpointregistry {

namespace {

using foundation::log::severity;
using Trustees = std::set<std::string>;

Trustees difference(const Trustees& all, const Trustees& without) {
    Trustees rest;
    std::set_difference(all.begin(), all.end(), without.begin(), without.end(),
                        std::inserter(rest, rest.end()));
    return rest;
}

void demandPublished(bool isPublished, severity level, const char* operation) {
    if (!isPublished) {
        getLogger().log(level, "Endpoint:", operation, ":Not supported on empty object");
        throw std::invalid_argument("Empty endpoints do not support trustees");
    }
}

} // namespace

// By value is the published signature of the trustee sets.
// NOLINTBEGIN(performance-unnecessary-value-param)

void Endpoint::addTrustees(Trustees trustees) {
    demandPublished(primary != nullptr, severity::error, "addTrustees");
    const DataPair data = primary->getDataPair();
    trustees.erase(std::string());
    const Trustees added = difference(trustees, getTrustees());
    if (!added.empty() && data.first.empty() && data.second.empty()) {
        // Somebody has removed what this process published, and the group would be told nothing.
        getLogger().log(severity::error, "Endpoint:addTrustees:The private entry is gone");
        throw std::runtime_error("Endpoint private entry cannot be read");
    }
    for (const std::string& trustee : added) {
        shares.push_back(std::make_unique<SysVImpl>(data, primary->getGroupTag(),
                                                    primary->getSelectedKey(), trustee));
    }
}

Trustees Endpoint::getTrustees() const {
    demandPublished(primary != nullptr, severity::error, "getTrustees");
    Trustees trustees;
    for (const auto& share : shares) {
        trustees.insert(share->getTrustee());
    }
    return trustees;
}

void Endpoint::removeTrustees(Trustees trustees) {
    demandPublished(primary != nullptr, severity::warning, "removeTrustees");
    // A private registry that cannot be read is reported; withdrawal itself reports nothing.
    primary->getDataPair();
    std::erase_if(
        shares, [&trustees](const auto& share) { return trustees.contains(share->getTrustee()); });
}

void Endpoint::clearTrustees() {
    demandPublished(primary != nullptr, severity::warning, "clearTrustees");
    withdrawShares();
}

void Endpoint::setTrustees(Trustees trustees) {
    demandPublished(primary != nullptr, severity::error, "setTrustees");
    const Trustees before = getTrustees();
    addTrustees(difference(trustees, before));
    removeTrustees(difference(before, trustees));
}

// NOLINTEND(performance-unnecessary-value-param)

} // namespace agent::spf::endpointregistry
