// What a published endpoint holds of its process: descriptors, mapped pages, heap.

#include "benchmarks/Benchmarks.h"
#include "benchmarks/Measuring.h"
#include "benchmarks/Publishers.h"
#include "endpointregistry/Endpoint.h"

#include <benchmark/benchmark.h>
#include <cstdint>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <malloc.h>
#include <sstream>
#include <string>
#include <unistd.h>
#include <vector>

namespace benchmarks {

namespace {

using agent::spf::endpointregistry::Endpoint;

struct Holdings {
    double descriptors;
    double mappedPages;
    double heapBytes;
};

double countDescriptors() {
    const std::filesystem::directory_iterator open("/proc/self/fd");
    return static_cast<double>(std::distance(open, {}));
}

/// Those of files and of System V segments; the heap is counted elsewhere.
double countMappedPages() {
    std::ifstream maps("/proc/self/maps");
    std::uint64_t bytes = 0;
    for (std::string line; std::getline(maps, line);) {
        std::istringstream fields(line);
        std::uint64_t begin = 0;
        std::uint64_t end = 0;
        char separator = 0;
        std::string permissions;
        fields >> std::hex >> begin >> separator >> end >> permissions;
        if (permissions.ends_with('s')) {
            bytes += end - begin;
        }
    }
    return static_cast<double>(bytes) / static_cast<double>(::sysconf(_SC_PAGESIZE));
}

Holdings holdings() {
    const double descriptors = countDescriptors();
    const double pages = countMappedPages();
    return {descriptors, pages, static_cast<double>(::mallinfo2().uordblks)};
}

/// How much each of so many has taken.
void report(benchmark::State& state, std::size_t count, const Holdings& before,
            const Holdings& after) {
    const auto each = [count](double first, double last) {
        return (last - first) / static_cast<double>(count);
    };
    state.counters["descriptors"] = each(before.descriptors, after.descriptors);
    state.counters["mapped_pages"] = each(before.mappedPages, after.mappedPages);
    state.counters["heap_bytes"] = each(before.heapBytes, after.heapBytes);
}

void cost(benchmark::State& state, std::size_t count, bool isShared) {
    withdrawOthers();
    const std::string group = isShared ? ownGroup() : std::string();
    // What the first takes for good is no cost of the endpoint.
    Endpoint({"unix", "/run/own-service"}, groupTag, "own key").setTrustees({group});
    for (auto _ : state) {
        std::vector<Endpoint> endpoints;
        endpoints.reserve(count);
        const Holdings before = holdings();
        for (std::size_t i = 0; i < count; ++i) {
            endpoints.emplace_back(dataOf(i), groupTag, keyOf(i));
            endpoints.back().setTrustees({group});
        }
        report(state, count, before, holdings());
    }
}

} // namespace

void registerCost() {
    constexpr std::size_t count = 100;
    add("registry/cost", count, [](auto& state, std::size_t all) { cost(state, all, false); });
    add("registry/costShared", count, [](auto& state, std::size_t all) { cost(state, all, true); });
}

} // namespace benchmarks
