#include "endpointregistry/EndpointMonitor.h"

#include "endpointregistry/EntryName.h"
#include "endpointregistry/detail/EndpointMonitorImpl.h"

#include <algorithm>
#include <utility>

namespace agent::spf::endpointregistry {

namespace {

using DataPairs = std::vector<Endpoint::DataPair>;

DataPairs dataWithTag(EndpointMonitor::Impl& impl, const std::string& groupTag) {
    std::vector<const Endpoint::DataPair*> found;
    const std::string prefix = getGroupTagPrefix(groupTag);
    for (const MonitoredTrustee& trustee : impl.lookUp()) {
        trustee.entries().visit(
            prefix, [&found](const MonitoredEntry& entry) { found.push_back(&entry.data); });
    }
    std::sort(found.begin(), found.end(),
              [](const auto* one, const auto* other) { return *one < *other; });
    DataPairs pairs;
    pairs.reserve(found.size());
    for (const Endpoint::DataPair* const data : found) {
        if (pairs.empty() || pairs.back() != *data) {
            pairs.push_back(*data);
        }
    }
    return pairs;
}

} // namespace

EndpointMonitor::EndpointMonitor()
    : EndpointMonitor(std::string()) {
}

EndpointMonitor::EndpointMonitor(const std::string& groupTag)
    : EndpointMonitor(groupTag, {std::string()}) {
}

// By value is how the lookups take trustee sets.
EndpointMonitor::EndpointMonitor(const std::string& groupTag, std::set<std::string> trustees)
    : impl(std::make_unique<Impl>(groupTag, std::move(trustees))) {
}

EndpointMonitor::EndpointMonitor(EndpointMonitor&& other) noexcept = default;
EndpointMonitor& EndpointMonitor::operator=(EndpointMonitor&& other) noexcept = default;
EndpointMonitor::~EndpointMonitor() = default;

const std::string& EndpointMonitor::groupTag() const noexcept {
    return impl->groupTag();
}

const std::set<std::string>& EndpointMonitor::trustees() const noexcept {
    return impl->trustees();
}

int EndpointMonitor::fileDescriptor() const noexcept {
    return impl->descriptor();
}

std::vector<EndpointMonitor::Event> EndpointMonitor::take() {
    return impl->take();
}

std::vector<EndpointMonitor::Event> EndpointMonitor::wait(std::chrono::milliseconds timeOut) {
    return impl->wait(timeOut);
}

std::optional<EndpointMonitor::DataPair> EndpointMonitor::find(const std::string& groupTag,
                                                               const std::string& selectedKey) {
    const std::string prefix = getGroupTagPrefix(groupTag);
    const std::string part = getSelectedKeySubstring(selectedKey);
    for (const MonitoredTrustee& trustee : impl->lookUp()) {
        if (const MonitoredEntry* const entry = trustee.find(prefix, part)) {
            return entry->data;
        }
    }
    return std::nullopt;
}

std::vector<EndpointMonitor::DataPair> EndpointMonitor::filter(const std::string& groupTag) {
    return groupTag.empty() ? DataPairs() : dataWithTag(*impl, groupTag);
}

std::vector<EndpointMonitor::DataPair> EndpointMonitor::list() {
    return dataWithTag(*impl, {});
}

} // namespace agent::spf::endpointregistry
