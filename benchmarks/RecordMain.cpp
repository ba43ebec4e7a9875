// What parts of the library take that cannot be told apart from outside.

#include "benchmarks/Benchmarks.h"
#include "benchmarks/Publishers.h"

#include <benchmark/benchmark.h>

int main(int argc, char** argv) {
    benchmarks::registerRecords();

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
