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

/// Measures the body for as long as the benchmark runs. Skips the benchmark, with a message, when
/// the body fails; throws when the surroundings cannot be made.
void measure(benchmark::State& state, const Surroundings& surroundings, const Body& body);

/// Also has the time per entry reported.
void reportPerEntry(benchmark::State& state, std::size_t entries);

/// Registers a benchmark, which is skipped with a message when it throws.
void add(const std::string& name, const std::function<void(benchmark::State&)>& function);

/// The same under the name `<name>/<entries>`, for a function that is told the number.
void add(const std::string& name, std::size_t entries,
         const std::function<void(benchmark::State&, std::size_t)>& function);

} // namespace benchmarks
