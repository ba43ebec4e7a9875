#include "benchmarks/Measuring.h"

#include "benchmarks/Helper.h"
#include "benchmarks/Publishers.h"

#include <algorithm>
#include <chrono>
#include <cstdint>
#include <exception>
#include <list>
#include <optional>
#include <stdexcept>

namespace benchmarks {

namespace {

constexpr const char* failure = "it did not do what it had to";

void repeat(Helper::Parent& parent, const Body& body) {
    for (bool isFirst = true; parent.goesOn(); isFirst = false) {
        if (!body()) {
            throw std::runtime_error(failure);
        }
        parent.count();
        if (isFirst) {
            parent.tellReady();
        }
    }
}

/// One entry of its own, over and over.
void publishAndWithdraw(Helper::Parent& parent) {
    const floor::Folder folder;
    const floor::Entry entry({"unix", "/run/restless"}, groupTag, "restless");
    repeat(parent, [&] {
        const floor::Publication publication(folder, entry);
        return true;
    });
}

std::uint64_t sumOf(const std::list<Helper>& helpers) {
    std::uint64_t sum = 0;
    for (const Helper& helper : helpers) {
        sum += helper.count();
    }
    return sum;
}

} // namespace

void measure(benchmark::State& state, const Surroundings& surroundings, const Body& body) {
    using Clock = std::chrono::steady_clock;
    provideOthers(surroundings.entries, surroundings.trustee);
    std::optional<Helper> publisher;
    if (surroundings.churn) {
        publisher.emplace(publishAndWithdraw);
    }
    std::list<Helper> helpers; // The others that do the same.
    for (int i = 1; i < surroundings.processes; ++i) {
        helpers.emplace_back([&body](Helper::Parent& parent) { repeat(parent, body); });
    }
    const std::uint64_t before = sumOf(helpers);
    const auto start = Clock::now();
    for (auto _ : state) {
        if (!body()) {
            state.SkipWithError(failure);
            return;
        }
    }
    const std::chrono::duration<double> elapsed = Clock::now() - start;
    // Of all processes together; the benchmark library would count this one alone.
    state.counters["items_per_second"] =
        (static_cast<double>(state.iterations()) + static_cast<double>(sumOf(helpers) - before)) /
        elapsed.count();
    const auto hasFailed = [](const Helper& helper) { return helper.hasFailed(); };
    if ((publisher && publisher->hasFailed()) || std::ranges::any_of(helpers, hasFailed)) {
        state.SkipWithError("a process beside the measured one has failed");
    }
}

void reportPerEntry(benchmark::State& state, std::size_t entries) {
    using benchmark::Counter;
    state.counters["per_entry"] = Counter(static_cast<double>(entries),
                                          Counter::kIsIterationInvariantRate | Counter::kInvert);
}

void add(const std::string& name, const std::function<void(benchmark::State&)>& function) {
    benchmark::RegisterBenchmark(name.c_str(), [function](benchmark::State& state) {
        try {
            function(state);
        } catch (const std::exception& error) {
            state.SkipWithError(error.what());
        }
    });
}

void add(const std::string& name, std::size_t entries,
         const std::function<void(benchmark::State&, std::size_t)>& function) {
    add(name + "/" + std::to_string(entries),
        [function, entries](benchmark::State& state) { function(state, entries); });
}

} // namespace benchmarks
