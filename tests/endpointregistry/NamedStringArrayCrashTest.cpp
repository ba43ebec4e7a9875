#include "endpointregistry/NamedStringArray.h"

#include "tests/endpointregistry/LockedFileTools.h"
#include "tests/endpointregistry/NamedStringArrayTools.h"
#include "tests/support/TestAccounts.h"
#include "tests/support/TracedProcess.h"

#include <algorithm>
#include <filesystem>
#include <functional>
#include <gtest/gtest.h>
#include <set>
#include <string>

using tests::Entries;
using tests::Entry;
using tests::numbered;
using tests::numberedUpTo;
using tests::RawTable;

namespace {

namespace accounts = tests::accounts;

/// Rows as they may be after a crash: before the operation, or after it.
struct Outcomes {
    Entries before;
    Entries after;
};

void insertUpTo(const RawTable& table, unsigned count) {
    auto array = table.array();
    for (const Entry& entry : numberedUpTo(count)) {
        array.insert(entry);
    }
}

/// Expects the table to be as it may be, and to go on working; whether the operation has happened.
bool expectSound(const RawTable& table, const Outcomes& outcomes, int step) {
    auto array = table.array();
    Entries rows = array.filter({});
    EXPECT_TRUE(rows == outcomes.before || rows == outcomes.after)
        << rows.size() << " rows when killed at step " << step;
    const bool hasHappened = rows == outcomes.after;
    const auto expectRows = [&] { EXPECT_EQ(array.filter({}), rows) << "killed at step " << step; };

    const Entry wide{"a wide one", std::string(50, 'w')};
    array.insert(wide);
    rows.push_back(wide);
    expectRows();
    for (unsigned number = 0; number < 11; ++number) {
        rows.push_back({"later", std::to_string(number)});
        array.insert(rows.back());
    }
    expectRows();
    for (const Entry& entry : Entries(rows)) {
        array.erase(entry);
        rows.erase(rows.begin());
    }
    expectRows();
    EXPECT_EQ(table.dimensions(), tests::Dimensions(0, 0)) << "killed at step " << step;
    return hasHappened;
}

/// How many steps a process takes before it ends.
int stepsOf(const std::function<void()>& body) {
    tests::TracedProcess process(body);
    int steps = 0;
    while (process.run(1)) {
        ++steps;
    }
    return steps;
}

class NamedStringArrayCrash : public tests::NamedStringArrayUsersTest {
protected:
    void SetUp() override {}

    /// Kills a process at every step of the operation, and looks each time at a table that was
    /// prepared anew.
    void sweep(const std::function<void()>& prepare, const std::function<void()>& operation,
               const std::function<void(int)>& expect, int firstStep) {
        int step = firstStep;
        for (bool wasKilled = true; wasKilled && !HasFailure(); ++step) {
            forget();
            prepare();
            {
                tests::TracedProcess process(operation);
                wasKilled = process.run(step);
            }
            expect(step);
        }
        // Far fewer would mean that the child did not do what it is killed for.
        EXPECT_GT(step, firstStep + 20);
    }

    void sweepPrivately(unsigned count, const std::function<void()>& operation,
                        const Outcomes& outcomes) {
        std::set<bool> seen;
        sweep([&] { insertUpTo(table, count); }, operation,
              [&](int step) {
                  seen.insert(expectSound(table, outcomes, step));
                  EXPECT_EQ(tests::kernelSegments().size(), 2U) << "killed at step " << step;
              },
              0);
        EXPECT_EQ(seen, (std::set<bool>{false, true}));
    }

    /// anna is killed, and ben goes on.
    void sweepBetweenUsers(unsigned count, const std::function<void()>& operation,
                           const Outcomes& outcomes) {
        if (!accounts::available()) {
            GTEST_SKIP() << accounts::whyNot;
        }
        const auto becomeAnna = [] { accounts::become(accounts::anna); };
        sweep(
            [&] {
                tests::provideSharedFolder();
                tests::as(accounts::ben, [&] { insertUpTo(shared, count); });
            },
            [&] {
                becomeAnna();
                operation();
            },
            [&](int step) {
                tests::as(accounts::ben, [&] { expectSound(shared, outcomes, step); });
                tests::as(accounts::anna, tests::useSharedMemoryOfFriends);
                tests::as(accounts::ben, tests::useSharedMemoryOfFriends);
                EXPECT_EQ(tests::kernelSegments().size(), 2U) << "killed at step " << step;
            },
            stepsOf(becomeAnna) - 1);
    }

private:
    /// As if nobody had ever used the registry.
    void forget() {
        tests::forgetAllSegments();
        std::filesystem::remove_all(tests::privateBase());
        std::filesystem::remove_all("/home/Shared");
    }
};

Entries without(Entries entries, unsigned number) {
    entries.erase(entries.begin() + static_cast<std::ptrdiff_t>(number));
    return entries;
}

} // namespace

TEST_F(NamedStringArrayCrash, InTheFirstInsertionLeavesNoRowOrOne) {
    sweepPrivately(0, [this] { table.array().insert(numbered(0)); }, {{}, numberedUpTo(1)});
}

TEST_F(NamedStringArrayCrash, InAnInsertionThatFitsLeavesTheRowsBeforeOrAfter) {
    sweepPrivately(2, [this] { table.array().insert(numbered(2)); },
                   {numberedUpTo(2), numberedUpTo(3)});
}

TEST_F(NamedStringArrayCrash, InAnInsertionThatGrowsTheTableLeavesTheRowsBeforeOrAfter) {
    sweepPrivately(10, [this] { table.array().insert(numbered(10)); },
                   {numberedUpTo(10), numberedUpTo(11)});
}

TEST_F(NamedStringArrayCrash, InAnErasureThatShrinksTheTableLeavesTheRowsBeforeOrAfter) {
    sweepPrivately(11, [this] { table.array().erase(numbered(3)); },
                   {numberedUpTo(11), without(numberedUpTo(11), 3)});
}

TEST_F(NamedStringArrayCrash, InTheLastErasureLeavesTheRowOrNone) {
    sweepPrivately(1, [this] { table.array().erase(numbered(0)); }, {numberedUpTo(1), {}});
}

TEST_F(NamedStringArrayCrash, InADeletionLeavesAllRowsOrNone) {
    sweepPrivately(11, [this] { table.remove(); }, {numberedUpTo(11), {}});
}

TEST_F(NamedStringArrayCrash, OfAnotherUserInTheFirstInsertionLeavesNoRowOrOne) {
    sweepBetweenUsers(0, [this] { shared.array().insert(numbered(0)); }, {{}, numberedUpTo(1)});
}

TEST_F(NamedStringArrayCrash, OfAnotherUserInAGrowingInsertionLeavesTheRowsBeforeOrAfter) {
    sweepBetweenUsers(10, [this] { shared.array().insert(numbered(10)); },
                      {numberedUpTo(10), numberedUpTo(11)});
}

TEST_F(NamedStringArrayCrash, OfAnotherUserInAShrinkingErasureLeavesTheRowsBeforeOrAfter) {
    sweepBetweenUsers(11, [this] { shared.array().erase(numbered(3)); },
                      {numberedUpTo(11), without(numberedUpTo(11), 3)});
}

TEST_F(NamedStringArrayCrash, OfAnotherUserInADeletionLeavesAllRowsOrNone) {
    sweepBetweenUsers(11, [this] { shared.remove(); }, {numberedUpTo(11), {}});
}
