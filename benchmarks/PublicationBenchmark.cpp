// Publishing and withdrawing one entry while others live.

#include "benchmarks/Benchmarks.h"
#include "benchmarks/Floor.h"
#include "benchmarks/Measuring.h"
#include "benchmarks/Publishers.h"
#include "endpointregistry/Endpoint.h"

#include <benchmark/benchmark.h>
#include <string>

namespace benchmarks {

namespace {

using agent::spf::endpointregistry::Endpoint;

const std::string key = "own key";
const Endpoint::DataPair data = {"unix", "/run/own-service"};

void publishAndWithdraw(benchmark::State& state, std::size_t entries) {
    measure(state, {.entries = entries}, [] {
        const Endpoint endpoint(data, groupTag, key);
        return static_cast<bool>(endpoint);
    });
}

void publishAndWithdrawOnFloor(benchmark::State& state, std::size_t entries) {
    const floor::Folder folder;
    const floor::Entry entry(data, groupTag, key);
    measure(state, {.entries = entries}, [&] {
        const floor::Publication publication(folder, entry);
        return true;
    });
}

} // namespace

void registerPublication() {
    for (const std::size_t entries : entryCounts) {
        add("registry/publishAndWithdraw", entries, publishAndWithdraw);
        add("floor/publishAndWithdraw", entries, publishAndWithdrawOnFloor);
    }
}

} // namespace benchmarks
