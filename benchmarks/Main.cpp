// What the library's operations take, beside the bare system calls that the same results take.

#include "benchmarks/Benchmarks.h"
#include "benchmarks/Publishers.h"

#include <benchmark/benchmark.h>

int main(int argc, char** argv) {
    benchmarks::registerPublication();
    benchmarks::registerLookups();
    benchmarks::registerMonitors();
    benchmarks::registerGroups();
    benchmarks::registerArrays();
    benchmarks::registerConcurrency();
    benchmarks::registerStartUp();
    benchmarks::registerCost();

    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv)) {
        return 1;
    }
    benchmarks::raiseDescriptorLimit();
    benchmark::RunSpecifiedBenchmarks();
    benchmarks::withdrawOthers();
    benchmark::Shutdown();
    return 0;
}
