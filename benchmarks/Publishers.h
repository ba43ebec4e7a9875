#pragma once

#include "foundation/os/FileDescriptor.h"

#include <benchmark/benchmark.h>
#include <cstddef>
#include <functional>
#include <string>
#include <sys/types.h>

namespace benchmarks {

/// The group tag of every entry, and the selected key of the first.
inline const std::string groupTag = "benchmark";
inline const std::string firstKey = "key 0";

/// A group of this process that entries may be shared with; empty when it has none.
std::string ownGroup();

/// Another process that publishes so many entries for as long as the object lives, and shares them
/// with the trustee unless that is empty.
class Publishers {
public:
    explicit Publishers(std::size_t count, const std::string& trustee = {});
    ~Publishers();

    Publishers(const Publishers&) = delete;
    Publishers& operator=(const Publishers&) = delete;

private:
    foundation::os::FileDescriptor connection;
    pid_t child = -1;
};

/// Measures `body`, which says whether it found what it had to, for as long as the benchmark runs
/// while another process publishes as many entries as the benchmark's argument says. Skips the
/// benchmark where that process cannot publish.
void measureLookup(benchmark::State& state, const std::string& trustee,
                   const std::function<bool()>& body);

/// Also has the time per entry reported.
void reportPerEntry(benchmark::State& state);

} // namespace benchmarks
