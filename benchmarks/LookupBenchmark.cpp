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

/// Which entries are looked up.
enum class Wanted { eachByTurns, oneAgainAndAgain };

Keys keysOf(std::size_t entries, Wanted wanted) {
    return Keys(wanted == Wanted::eachByTurns ? entries : 1);
}

void find(benchmark::State& state, std::size_t entries, Wanted wanted) {
    Keys keys = keysOf(entries, wanted);
    measure(state, {.entries = entries},
            [&] { return Endpoint::find(groupTag, keys.next()).has_value(); });
}

void findOnFloor(benchmark::State& state, std::size_t entries, Wanted wanted) {
    const floor::Folder folder;
    Keys keys = keysOf(entries, wanted);
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

void addFind(const std::string& name, std::size_t entries, Wanted wanted) {
    add("registry/" + name, entries,
        [wanted](auto& state, std::size_t count) { find(state, count, wanted); });
    add("floor/" + name, entries,
        [wanted](auto& state, std::size_t count) { findOnFloor(state, count, wanted); });
}

} // namespace

void registerLookups() {
    for (const std::size_t entries : {1UL, 10UL, 80UL, 100UL, 500UL, 1000UL, 10000UL}) {
        addFind("find", entries, Wanted::eachByTurns);
    }
    for (const std::size_t entries : {1UL, 80UL, 1000UL, 10000UL}) {
        addFind("findAgain", entries, Wanted::oneAgainAndAgain);
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
