#pragma once

#include "endpointregistry/EndpointMonitor.h"
#include "tests/endpointregistry/EndpointTools.h"

#include <cstddef>
#include <ostream>
#include <string>
#include <vector>

namespace agent::spf::endpointregistry {

inline bool operator==(const EndpointMonitor::Event& one, const EndpointMonitor::Event& other) {
    return one.kind == other.kind && one.name == other.name && one.data == other.data &&
           one.trustee == other.trustee && one.publisher == other.publisher;
}

/// For messages of failed expectations.
inline void PrintTo(const EndpointMonitor::Event& event, std::ostream* out) {
    *out << (event.kind == EndpointMonitor::Event::Kind::appeared ? "+" : "-") << event.name << "("
         << event.data.first << "," << event.data.second << ") of '" << event.trustee << "' by "
         << event.publisher;
}

} // namespace agent::spf::endpointregistry

namespace tests {

using MonitorEvent = agent::spf::endpointregistry::EndpointMonitor::Event;
using MonitorEvents = std::vector<MonitorEvent>;

/// The appearance of an entry that this process, or another, has published.
MonitorEvent appearanceOf(const DataPair& data, const std::string& groupTag,
                          const std::string& selectedKey, pid_t publisher,
                          const std::string& trustee = {});

/// What is reported when that entry goes.
MonitorEvent disappearanceOf(MonitorEvent appearance);

/// Waits for as many events, or more when the monitor has them; throws std::runtime_error when they
/// do not come within a generous limit.
MonitorEvents await(agent::spf::endpointregistry::EndpointMonitor& monitor, std::size_t count);

/// Whether the monitor's descriptor is readable now.
bool isReadable(const agent::spf::endpointregistry::EndpointMonitor& monitor);

/// Waits until the monitor's descriptor is no longer readable, taking nothing but irrelevant
/// changes; fails when there are events.
void expectQuiet(agent::spf::endpointregistry::EndpointMonitor& monitor);

} // namespace tests
