#include "endpointregistry/NamedStringArray.h"

#include "tests/endpointregistry/LockedFileProcesses.h"
#include "tests/endpointregistry/LockedFileTools.h"
#include "tests/endpointregistry/NamedStringArrayTools.h"
#include "tests/support/ForkedProcess.h"
#include "tests/support/TestAccounts.h"

#include <algorithm>
#include <array>
#include <atomic>
#include <functional>
#include <gtest/gtest.h>
#include <memory>
#include <random>
#include <stdexcept>
#include <string>
#include <vector>

using tests::Channel;
using tests::Entries;
using tests::Entry;
using tests::ForkedProcess;
using tests::NamedStringArray;
using tests::RawTable;

namespace {

namespace accounts = tests::accounts;

constexpr std::size_t workerCount = 8;
constexpr unsigned maxRowsPerWorker = 25;
#ifdef __SANITIZE_ADDRESS__
constexpr unsigned allOperations = 2'000;
#else
constexpr unsigned allOperations = 10'000;
#endif

enum class Operation { none, insertion, erasure };

/// What a worker has in the table: its rows from `first` up to `next`, but for one that it may have
/// been killed over.
struct Worker {
    std::atomic<unsigned> first;
    std::atomic<unsigned> next;
    std::atomic<Operation> pending;
};

struct Work {
    std::array<Worker, workerCount> workers;
    std::atomic<unsigned> operations;
};

std::string markOf(std::size_t worker) {
    return "worker " + std::to_string(worker);
}

/// Of several widths, so that the table's changes as well.
Entry entryOf(std::size_t worker, unsigned number) {
    return {markOf(worker), std::to_string(1'000'000 + number), std::string(number % 30, 'x')};
}

Entries entriesOf(std::size_t worker, unsigned first, unsigned next) {
    Entries entries;
    for (unsigned number = first; number < next; ++number) {
        entries.push_back(entryOf(worker, number));
    }
    return entries;
}

Entries rowsOf(NamedStringArray& array, std::size_t worker) {
    Entries rows = array.filter({markOf(worker)});
    std::sort(rows.begin(), rows.end());
    return rows;
}

/// Finds out whether what the killed predecessor was at has happened.
void reconcile(NamedStringArray& array, Worker& own, std::size_t number) {
    const Entries rows = rowsOf(array, number);
    if (own.pending == Operation::insertion && rows == entriesOf(number, own.first, own.next + 1)) {
        ++own.next;
    } else if (own.pending == Operation::erasure && own.first < own.next &&
               rows == entriesOf(number, own.first + 1, own.next)) {
        ++own.first;
    }
    own.pending = Operation::none;
    if (rows != entriesOf(number, own.first, own.next)) {
        throw std::runtime_error("rows were lost, doubled or came back after a crash");
    }
}

void workOn(const RawTable& table, Work& work, std::size_t number) {
    NamedStringArray array = table.array();
    Worker& own = work.workers.at(number);
    reconcile(array, own, number);
    // NOLINTNEXTLINE: the same in every run
    std::minstd_rand random(static_cast<unsigned>(1000 * number + own.next + 1));
    while (work.operations++ < allOperations) {
        const unsigned rows = own.next - own.first;
        const auto choice = random() % 10;
        if (choice == 0) {
            if (rowsOf(array, number) != entriesOf(number, own.first, own.next)) {
                throw std::runtime_error("rows were lost, doubled or came back");
            }
        } else if (rows == 0 || (choice < 6 && rows < maxRowsPerWorker)) {
            own.pending = Operation::insertion;
            array.insert(entryOf(number, own.next));
            ++own.next;
        } else {
            own.pending = Operation::erasure;
            array.erase(entryOf(number, own.first));
            ++own.first;
        }
        own.pending = Operation::none;
    }
}

class NamedStringArrayStrain : public tests::NamedStringArrayUsersTest {
protected:
    using Become = std::function<void(std::size_t)>;

    void SetUp() override {}

    /// Lets all work, kills one now and then, and puts another in its place.
    void strain(const RawTable& shared, const Become& become) {
        std::vector<std::unique_ptr<ForkedProcess>> processes(workerCount);
        const auto start = [&](std::size_t number) {
            processes.at(number) = std::make_unique<ForkedProcess>([&, number](Channel&) {
                become(number);
                workOn(shared, *work, number);
            });
        };
        for (std::size_t number = 0; number < workerCount; ++number) {
            start(number);
        }
        constexpr unsigned kills = 25;
        for (unsigned kill = 1; kill <= kills; ++kill) {
            tests::waitUntil([&] { return work->operations >= kill * allOperations / (kills + 1); },
                             "the next operations");
            const std::size_t victim = kill % workerCount;
            processes.at(victim)->kill();
            start(victim);
        }
        for (const auto& process : processes) {
            EXPECT_EQ(process->waitForExit(), 0);
        }
    }

    void expectAllRows(const RawTable& shared) {
        NamedStringArray array = shared.array();
        std::size_t rows = 0;
        std::size_t width = 0;
        for (std::size_t number = 0; number < workerCount; ++number) {
            const Worker& worker = work->workers.at(number);
            const Entries expected = entriesOf(number, worker.first, worker.next);
            EXPECT_EQ(rowsOf(array, number), expected) << number;
            rows += expected.size();
            for (const Entry& entry : expected) {
                width = std::max(width,
                                 4 + entry.at(0).size() + entry.at(1).size() + entry.at(2).size());
            }
        }
        EXPECT_EQ(array.filter({}).size(), rows);
        const auto [length, bytes] = shared.dimensions();
        EXPECT_GE(length, rows);
        EXPECT_LE(length, (rows + 9) / 10 * 10 + 10);
        EXPECT_GE(bytes, width);
        // Narrower than the widest that are coming and going, unless a crash came between.
        EXPECT_LE(bytes, (width + 3) / 4 * 4 + 4);
    }

    const tests::SharedWithChildren<Work> work;
};

} // namespace

TEST_F(NamedStringArrayStrain, LosesNoRowAndDoublesNone) {
    strain(table, [](std::size_t) {});
    expectAllRows(table);
    EXPECT_EQ(tests::kernelSegments().size(), 2U);
}

TEST_F(NamedStringArrayStrain, BetweenUsersLosesNoRowAndDoublesNone) {
    if (!accounts::available()) {
        GTEST_SKIP() << accounts::whyNot;
    }
    tests::provideSharedFolder();
    strain(shared, [](std::size_t number) {
        accounts::become(number % 2 == 0 ? accounts::anna : accounts::ben);
    });
    tests::as(accounts::anna, [this] { expectAllRows(shared); });
    tests::as(accounts::ben, tests::useSharedMemoryOfFriends);
    tests::as(accounts::anna, tests::useSharedMemoryOfFriends);
    EXPECT_EQ(tests::kernelSegments().size(), 2U);
}
