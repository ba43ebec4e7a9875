// Lookups by several processes at once, also while another one publishes and withdraws.

#include "benchmarks/Benchmarks.h"
#include "benchmarks/Measuring.h"
#include "benchmarks/Publishers.h"
#include "endpointregistry/Endpoint.h"

#include <benchmark/benchmark.h>
#include <string>

namespace benchmarks {

namespace {

using agent::spf::endpointregistry::Endpoint;

bool find() {
    return Endpoint::find(groupTag, keyOf(0)).has_value();
}

bool list(std::size_t entries) {
    // One more where another process publishes at the moment.
    return Endpoint::list().size() >= entries;
}

void addLookup(const std::string& operation, const Surroundings& surroundings, const Body& body) {
    const std::string name = "registry/" + operation + "/" + std::to_string(surroundings.entries) +
                             "/processes:" + std::to_string(surroundings.processes) +
                             (surroundings.churn ? "/churn" : "");
    add(name, [=](benchmark::State& state) { measure(state, surroundings, body); });
}

} // namespace

void registerConcurrency() {
    for (const std::size_t entries : entryCounts) {
        for (const bool churn : {false, true}) {
            for (const int processes : {1, 2}) {
                const Surroundings surroundings{
                    .entries = entries, .processes = processes, .churn = churn};
                addLookup("find", surroundings, find);
                addLookup("list", surroundings, [entries] { return list(entries); });
            }
        }
    }
}

} // namespace benchmarks
