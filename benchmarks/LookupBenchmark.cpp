// Lookups among one's own entries, which another process publishes.

#include "benchmarks/Publishers.h"
#include "endpointregistry/Endpoint.h"

#include <benchmark/benchmark.h>

using agent::spf::endpointregistry::Endpoint;

namespace {

void findPrivate(benchmark::State& state) {
    benchmarks::measureLookup(state, {}, [] {
        return Endpoint::find(benchmarks::groupTag, benchmarks::firstKey).has_value();
    });
}
BENCHMARK(findPrivate)->Arg(1)->Arg(50)->Arg(1000);

void listPrivate(benchmark::State& state) {
    const auto count = static_cast<std::size_t>(state.range(0));
    benchmarks::measureLookup(state, {}, [count] { return Endpoint::list().size() == count; });
    benchmarks::reportPerEntry(state);
}
BENCHMARK(listPrivate)->Arg(50)->Arg(1000);

} // namespace
