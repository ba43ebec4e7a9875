#include "endpointregistry/NamedStringArray.h"

#include "tests/endpointregistry/LockedFileTools.h"
#include "tests/endpointregistry/NamedStringArrayTools.h"
#include "tests/support/ForkedProcess.h"
#include "tests/support/TracedProcess.h"

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <functional>
#include <gtest/gtest.h>
#include <limits>
#include <string>
#include <sys/ipc.h>
#include <sys/shm.h>
#include <sys/wait.h>

using tests::Channel;
using tests::Entries;
using tests::ForkedProcess;

namespace {

bool hasEnded(const ForkedProcess& process) {
    siginfo_t information{};
    return ::waitid(P_PID, static_cast<id_t>(process.pid()), &information,
                    WEXITED | WNOWAIT | WNOHANG) == 0 &&
           information.si_pid == process.pid();
}

/// Two operations, of which one is stopped at each of its steps until the other has gone as far as
/// it can.
class NamedStringArrayInterleaving : public tests::NamedStringArrayTest {
protected:
    using Action = std::function<void()>;

    void SetUp() override {
        if (!tests::canSeeWaiting()) {
            GTEST_SKIP() << tests::whyWaitingIsNotSeen;
        }
    }

    /// Expects `isRight` of the table's rows afterwards, and no other segments than the table's.
    void interleave(const Action& prepare, const Action& stopped, const Action& whole,
                    const std::function<bool(const Entries&)>& isRight) {
        bool hasStopped = true;
        for (int step = 0; hasStopped && !HasFailure(); ++step) {
            tests::forgetAllSegments();
            prepare();
            tests::TracedProcess first(stopped);
            hasStopped = first.run(step);
            ForkedProcess second([&whole](Channel&) { whole(); });
            tests::waitUntil(
                [&] { return hasEnded(second) || tests::hasOpen(second.pid(), "baseLock"); },
                "going as far as it can");
            if (hasStopped) {
                EXPECT_FALSE(first.run(std::numeric_limits<int>::max())) << step;
            }
            EXPECT_EQ(second.waitForExit(), 0) << step;
            const Entries rows = tests::sortedEntries(array);
            EXPECT_TRUE(isRight(rows)) << rows.size() << " rows when stopped at step " << step;
            EXPECT_EQ(tests::kernelSegments().size(), table.hasBase() ? 2U : 0U)
                << "stopped at step " << step;
        }
    }

    const Action nothing = [] {};
    const Action makeBase = [this] { table.plantBase({}); };
    const Action insertOne = [this] { table.array().insert("before"); };
    const Action insert = [this] { table.array().insert("a"); };
    const Action insertOther = [this] { table.array().insert("b"); };
    const Action remove = [this] { table.remove(); };
};

bool hasBoth(const Entries& rows) {
    return rows == Entries{{"a"}, {"b"}};
}

bool hasOneAtMost(const Entries& rows) {
    return rows.empty() || rows == Entries{{"a"}};
}

bool hasAllButTheRemoved(const Entries& rows) {
    return rows.empty() || rows == Entries{{"a"}} || rows == Entries{{"a"}, {"before"}};
}

} // namespace

TEST_F(NamedStringArrayInterleaving, OfFirstInsertionsKeepsBothRows) {
    interleave(nothing, insert, insertOther, hasBoth);
}

TEST_F(NamedStringArrayInterleaving, OfInsertionsThatInitialiseKeepsBothRows) {
    interleave(makeBase, insert, insertOther, hasBoth);
}

TEST_F(NamedStringArrayInterleaving, OfADeletionAndAnInsertionHidesNoRow) {
    interleave(insertOne, remove, insert, hasAllButTheRemoved);
}

TEST_F(NamedStringArrayInterleaving, OfADeletionAndTheFirstInsertionHidesNoRow) {
    interleave(nothing, remove, insert, hasOneAtMost);
}

TEST_F(NamedStringArrayInterleaving, OfADeletionBeforeInitialisationAndAnInsertionHidesNoRow) {
    interleave(makeBase, remove, insert, hasOneAtMost);
}

TEST_F(NamedStringArrayInterleaving, OfAnInsertionAndADeletionHidesNoRow) {
    interleave(insertOne, insert, remove, hasAllButTheRemoved);
}

TEST_F(NamedStringArrayInterleaving, OfTheFirstInsertionAndADeletionHidesNoRow) {
    interleave(nothing, insert, remove, hasOneAtMost);
}

TEST_F(NamedStringArrayInterleaving, OfAnErasureAndADeletionLeavesNothing) {
    interleave(
        insertOne, [this] { table.array().erase("before"); }, remove,
        [](const Entries& rows) { return rows.empty(); });
}

TEST_F(NamedStringArrayInterleaving, OfAnErasureAndAnInsertionKeepsTheInserted) {
    interleave(
        insertOne, [this] { table.array().erase("before"); }, insert,
        [](const Entries& rows) { return rows == Entries{{"a"}}; });
}

TEST_F(NamedStringArrayInterleaving, OfTwoDeletionsLeavesNothing) {
    interleave(insertOne, remove, remove, [](const Entries& rows) { return rows.empty(); });
}

TEST_F(NamedStringArrayInterleaving, OfAReadingAndADeletionReadsAllOrNothing) {
    interleave(
        insertOne,
        [this] {
            const Entries rows = table.array().filter({});
            EXPECT_TRUE(rows.empty() || rows == Entries{{"before"}});
        },
        remove, [](const Entries& rows) { return rows.empty(); });
}
