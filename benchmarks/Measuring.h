#pragma once

#include <benchmark/benchmark.h>
#include <cstddef>
#include <functional>
#include <string>

namespace benchmarks {

/// The numbers of others' entries that are measured with.
inline constexpr std::size_t entryCounts[] = {1, 10, 100, 1000, 10000}; // NOLINT(*-c-arrays)

/// What is measured; says whether it did what it had to.
using Body = std::function<bool()>;

/// Beside what it is measured.
struct Surroundings {
    /// Other processes' entries, and the group that they share them with.
    std::size_t entries = 0;
    std::string trustee = {};
    /// How many processes do the same at once.
    int processes = 1;
    /// Whether another process publishes and withdraws without a pause.
    bool churn = false;
};

/// Measures the body for as long as the benchmark runs. Skips the benchmark, with a message, where
/// the surroundings cannot be made or the body fails.
void measure(benchmark::State& state, const Surroundings& surroundings, const Body& body);

/// Also has the time per entry reported.
void reportPerEntry(benchmark::State& state, std::size_t entries);

/// Registers a benchmark of the name `<name>/<entries>`.
template<typename Function>
void add(const std::string& name, std::size_t entries, Function function) {
    benchmark::RegisterBenchmark((name + "/" + std::to_string(entries)).c_str(), function, entries);
}

} // namespace benchmarks
