// Lookups among one's own entries, which another process publishes.

#include "benchmarks/Benchmarks.h"
#include "benchmarks/Floor.h"
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

void find(benchmark::State& state, std::size_t entries) {
    Keys keys(entries);
    measure(state, {.entries = entries},
            [&] { return Endpoint::find(groupTag, keys.next()).has_value(); });
}

void findOnFloor(benchmark::State& state, std::size_t entries) {
    const floor::Folder folder;
    Keys keys(entries);
    const std::string groupPart = registry::getGroupTagPrefix(groupTag);
    measure(state, {.entries = entries}, [&] {
        return folder.find(groupPart, registry::getSelectedKeySubstring(keys.next())).has_value();
    });
}

void filter(benchmark::State& state, std::size_t entries) {
    measure(state, {.entries = entries},
            [entries] { return Endpoint::filter(groupTag).size() == entries; });
    reportPerEntry(state, entries);
}

void list(benchmark::State& state, std::size_t entries) {
    measure(state, {.entries = entries}, [entries] { return Endpoint::list().size() == entries; });
    reportPerEntry(state, entries);
}

void listOnFloor(benchmark::State& state, std::size_t entries, const std::string& part) {
    const floor::Folder folder;
    measure(state, {.entries = entries}, [&] { return folder.list(part).size() == entries; });
    reportPerEntry(state, entries);
}

} // namespace

void registerLookups() {
    for (const std::size_t entries : {1UL, 10UL, 80UL, 100UL, 500UL, 1000UL, 10000UL}) {
        add("registry/find", entries, find);
        add("floor/find", entries, findOnFloor);
    }
    for (const std::size_t entries : entryCounts) {
        add("registry/filter", entries, filter);
        add("floor/filter", entries, [](auto& state, std::size_t count) {
            listOnFloor(state, count, registry::getGroupTagPrefix(groupTag));
        });
        add("registry/list", entries, list);
        add("floor/list", entries, [](auto& state, std::size_t count) {
            listOnFloor(state, count, registry::getGroupTagPrefix({}));
        });
    }
}

} // namespace benchmarks
