// Sharing one entry with a group, and looking up what another process shares with it.

#include "benchmarks/Benchmarks.h"
#include "benchmarks/FloorGroup.h"
#include "benchmarks/Keys.h"
#include "benchmarks/Measuring.h"
#include "benchmarks/Publishers.h"
#include "endpointregistry/Endpoint.h"
#include "endpointregistry/EntryName.h"

#include <benchmark/benchmark.h>
#include <string>

namespace benchmarks {

namespace {

namespace registry = agent::spf::endpointregistry;
using registry::Endpoint;

void findShared(benchmark::State& state, std::size_t entries) {
    const std::string group = ownGroup();
    Keys keys(entries);
    measure(state, {.entries = entries, .trustee = group},
            [&] { return Endpoint::find(groupTag, keys.next(), {group}).has_value(); });
}

void findSharedOnFloor(benchmark::State& state, std::size_t entries) {
    const std::string group = ownGroup();
    provideOthers(entries, group);
    const floor::SharedFolder folder(group);
    Keys keys(entries);
    const std::string groupPart = registry::getGroupTagPrefix(groupTag);
    measure(state, {.entries = entries, .trustee = group}, [&] {
        return folder.find(groupPart, registry::getSelectedKeySubstring(keys.next())).has_value();
    });
}

void filterShared(benchmark::State& state, std::size_t entries) {
    const std::string group = ownGroup();
    measure(state, {.entries = entries, .trustee = group},
            [&] { return Endpoint::filter(groupTag, {group}).size() == entries; });
    reportPerEntry(state, entries);
}

void listShared(benchmark::State& state, std::size_t entries) {
    const std::string group = ownGroup();
    measure(state, {.entries = entries, .trustee = group},
            [&] { return Endpoint::list({group}).size() == entries; });
    reportPerEntry(state, entries);
}

void shareAndUnshare(benchmark::State& state, std::size_t entries) {
    const std::string group = ownGroup();
    provideOthers(entries, group); // Which would inherit the endpoint.
    Endpoint endpoint({"unix", "/run/own-service"}, groupTag, "own key");
    measure(state, {.entries = entries, .trustee = group}, [&] {
        endpoint.addTrustees({group});
        endpoint.removeTrustees({group});
        return true;
    });
}

} // namespace

void registerGroups() {
    for (const std::size_t entries : {1UL, 10UL, 50UL, 100UL, 1000UL, 2000UL, 10000UL}) {
        add("registry/findShared", entries, findShared);
        add("floor/findShared", entries, findSharedOnFloor);
        add("registry/filterShared", entries, filterShared);
        add("registry/listShared", entries, listShared);
        add("registry/shareAndUnshare", entries, shareAndUnshare);
    }
}

} // namespace benchmarks
