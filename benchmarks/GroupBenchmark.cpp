// Lookups among what is shared with a group, which another process publishes.

#include "benchmarks/Publishers.h"
#include "endpointregistry/Endpoint.h"

#include <benchmark/benchmark.h>
#include <string>

using agent::spf::endpointregistry::Endpoint;

namespace {

void findShared(benchmark::State& state) {
    const std::string group = benchmarks::ownGroup();
    benchmarks::measureLookup(state, group, [&group] {
        return Endpoint::find(benchmarks::groupTag, benchmarks::firstKey, {group}).has_value();
    });
}
BENCHMARK(findShared)->Arg(1)->Arg(50)->Arg(1000);

/// The time per entry must not grow with their number: the group's table is read once.
void listShared(benchmark::State& state) {
    const auto count = static_cast<std::size_t>(state.range(0));
    const std::string group = benchmarks::ownGroup();
    benchmarks::measureLookup(state, group,
                              [&] { return Endpoint::list({group}).size() == count; });
    benchmarks::reportPerEntry(state);
}
BENCHMARK(listShared)->Arg(50)->Arg(500)->Arg(2000);

} // namespace
