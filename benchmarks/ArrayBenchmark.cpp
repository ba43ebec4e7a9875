// Tables of strings, without the endpoints that are kept in one.

#include "benchmarks/Benchmarks.h"
#include "benchmarks/Measuring.h"
#include "endpointregistry/NamedStringArray.h"

#include <benchmark/benchmark.h>
#include <string>

namespace benchmarks {

namespace {

namespace registry = agent::spf::endpointregistry;

/// A table of so many rows, for as long as the object lives.
class Table {
public:
    explicit Table(std::size_t rows) {
        for (std::size_t i = 0; i < rows; ++i) {
            const std::string number = std::to_string(i);
            array.insert({"name " + number, "unix", "/run/service-" + number});
        }
    }
    ~Table() { registry::deleteNamedStringArray(name, version, {}); }

    Table(const Table&) = delete;
    Table& operator=(const Table&) = delete;

    registry::NamedStringArray array{name, version, {}};

private:
    static constexpr const char* name = "benchmark";
    static constexpr unsigned long version = 0;
};

void insertAndErase(benchmark::State& state, std::size_t rows) {
    Table table(rows);
    measure(state, {}, [&] {
        table.array.insert({"own name", "unix", "/run/own-service"});
        table.array.erase({"own name", "unix", "/run/own-service"});
        return true;
    });
}

/// One row of all.
void filter(benchmark::State& state, std::size_t rows) {
    Table table(rows);
    const std::string last = "name " + std::to_string(rows - 1);
    measure(state, {}, [&] { return table.array.filter({last}).size() == 1; });
}

void list(benchmark::State& state, std::size_t rows) {
    Table table(rows);
    measure(state, {}, [&] { return table.array.filter({}).size() == rows; });
    reportPerEntry(state, rows);
}

} // namespace

void registerArrays() {
    for (const std::size_t rows : {10UL, 100UL, 1000UL, 10000UL}) {
        add("registry/arrayInsertAndErase", rows, insertAndErase);
        add("registry/arrayFilter", rows, filter);
        add("registry/arrayList", rows, list);
    }
}

} // namespace benchmarks
