#include "tests/endpointregistry/EndpointMonitorTools.h"

#include <chrono>
#include <iterator>
#include <poll.h>
#include <stdexcept>

namespace tests {

using agent::spf::endpointregistry::EndpointMonitor;
using std::chrono::steady_clock;
using Kind = EndpointMonitor::Event::Kind;

MonitorEvent appearanceOf(const DataPair& data, const std::string& groupTag,
                          const std::string& selectedKey, pid_t publisher,
                          const std::string& trustee) {
    return {Kind::appeared, entryName(data, groupTag, selectedKey, publisher), data, trustee,
            static_cast<unsigned long>(publisher)};
}

MonitorEvent disappearanceOf(MonitorEvent appearance) {
    appearance.kind = Kind::disappeared;
    return appearance;
}

MonitorEvents await(EndpointMonitor& monitor, std::size_t count) {
    const auto limit = steady_clock::now() + std::chrono::minutes(4);
    MonitorEvents events;
    while (events.size() < count) {
        if (steady_clock::now() > limit) {
            throw std::runtime_error("The events did not come.");
        }
        MonitorEvents next = monitor.wait(std::chrono::minutes(1));
        std::move(next.begin(), next.end(), std::back_inserter(events));
    }
    return events;
}

bool isReadable(const EndpointMonitor& monitor) {
    pollfd request{monitor.fileDescriptor(), POLLIN, 0};
    return ::poll(&request, 1, 0) == 1;
}

void expectQuiet(EndpointMonitor& monitor) {
    EXPECT_EQ(monitor.take(), MonitorEvents());
    while (isReadable(monitor)) {
        EXPECT_EQ(monitor.take(), MonitorEvents());
    }
}

} // namespace tests
