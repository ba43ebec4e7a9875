#pragma once

#include "endpointregistry/EndpointMonitor.h"

#include <cstdint>
#include <map>
#include <utility>
#include <vector>

namespace agent::spf::endpointregistry {

/// The events that a monitor has not handed out yet, in their order.
class MonitorEvents {
public:
    /// Whether the disappearance of an entry whose appearance was not handed out is reported, after
    /// that, or neither is. The latter is for whoever only looks up, and may never ask for events.
    void keepAll(bool isWanted) { keepsAll = isWanted; }

    /// Adds an event and returns its number.
    std::uint64_t add(EndpointMonitor::Event event) {
        events.emplace(next, std::move(event));
        return next++;
    }

    /// Adds the disappearance of an entry whose appearance bore this number.
    void addDisappearance(EndpointMonitor::Event event, std::uint64_t appearance) {
        if (keepsAll || events.erase(appearance) == 0) {
            add(std::move(event));
        }
    }

    bool areThere() const { return !events.empty(); }

    std::vector<EndpointMonitor::Event> takeAll() {
        std::vector<EndpointMonitor::Event> taken;
        taken.reserve(events.size());
        for (auto& [number, event] : events) {
            taken.push_back(std::move(event));
        }
        events.clear();
        return taken;
    }

private:
    std::map<std::uint64_t, EndpointMonitor::Event> events;
    std::uint64_t next = 0;
    bool keepsAll = true;
};

} // namespace agent::spf::endpointregistry
