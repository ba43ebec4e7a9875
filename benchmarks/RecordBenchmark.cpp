// What the hint adds to a publication and a withdrawal: the same on the layer beneath `Endpoint`,
// with a hint and without.

#include "benchmarks/Benchmarks.h"
#include "benchmarks/Measuring.h"
#include "benchmarks/Publishers.h"
#include "endpointregistry/detail/EndpointPosixImpl.h"
#include "endpointregistry/detail/EntryFolder.h"
#include "endpointregistry/detail/Synonyms.h"

#include <benchmark/benchmark.h>
#include <string>

namespace benchmarks {

namespace {

namespace registry = agent::spf::endpointregistry;
using registry::Endpoint;

const std::string key = "own key";
const Endpoint::DataPair data = {"unix", "/run/own-service"};

enum class Hint { isLeft, isNotLeft };

/// What the constructor and the destructor of an `Endpoint` do.
bool publishAndWithdrawRecord(Hint hint) {
    const registry::EntryFolder folder("");
    const registry::Synonyms synonyms(data, groupTag, key, folder);
    if (synonyms.anyLives()) {
        return false;
    }
    Endpoint::PosixImpl record(data, groupTag, key, folder);
    if (!synonyms.hasOnly(record.entryName())) {
        return false;
    }
    if (hint == Hint::isLeft) {
        record.leaveHint(folder, synonyms.tagPrefix(), synonyms.keyPart());
    }
    return true;
}

void measureRecord(benchmark::State& state, std::size_t entries, Hint hint) {
    measure(state, {.entries = entries}, [hint] { return publishAndWithdrawRecord(hint); });
}

} // namespace

void registerRecords() {
    for (const std::size_t entries : {1UL, 100UL}) {
        const std::string name =
            "registry/publishAndWithdrawRecord/" + std::to_string(entries) + "/";
        add(name + "withHint",
            [=](benchmark::State& state) { measureRecord(state, entries, Hint::isLeft); });
        add(name + "withoutHint",
            [=](benchmark::State& state) { measureRecord(state, entries, Hint::isNotLeft); });
    }
}

} // namespace benchmarks
