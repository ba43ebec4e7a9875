// What a monitor asks of the system.

#include "endpointregistry/EndpointMonitor.h"
#include "tests/performance/Operations.h"

#include <chrono>

namespace performance {

namespace {

using agent::spf::endpointregistry::Endpoint;
using agent::spf::endpointregistry::EndpointMonitor;

Endpoint publishOwn() {
    return Endpoint::publish("unix", "/run/own", tag, "own key");
}

/// Takes what there is, until a while after a monitor was made it has nothing more to look at.
void settle(EndpointMonitor& monitor) {
    monitor.take();
    monitor.wait(std::chrono::milliseconds(100));
}

void find() {
    EndpointMonitor monitor;
    settle(monitor);
    measure([&] { demand(monitor.find(tag, firstKey).has_value(), "found nothing"); });
}

void takeNothing() {
    EndpointMonitor monitor;
    settle(monitor);
    measure([&] { demand(monitor.take().empty(), "reported what did not happen"); });
}

void takeAppearance() {
    EndpointMonitor monitor;
    settle(monitor);
    Endpoint own;
    measure(
        [&] {
            own.reset();
            monitor.take();
            own = publishOwn();
        },
        [&] { demand(!monitor.take().empty(), "reported nothing"); });
}

void takeDisappearance() {
    EndpointMonitor monitor;
    settle(monitor);
    measure(
        [&] {
            const Endpoint own = publishOwn();
            monitor.take();
        },
        [&] { demand(monitor.take().size() == 1, "reported nothing"); });
}

} // namespace

std::vector<Operation> monitorOperations() {
    return {
        {"monitorFind/1", 1, false, find},
        {"monitorFind/100", 100, false, find},
        {"monitorTakeNothing/100", 100, false, takeNothing},
        {"monitorTakeAppearance/100", 100, false, takeAppearance},
        {"monitorTakeDisappearance/100", 100, false, takeDisappearance},
    };
}

} // namespace performance
