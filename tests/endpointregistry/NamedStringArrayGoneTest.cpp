#include "endpointregistry/NamedStringArray.h"

#include "tests/endpointregistry/LockWaitingTools.h"
#include "tests/endpointregistry/LockedFileProcesses.h"
#include "tests/endpointregistry/LockedFileTools.h"
#include "tests/endpointregistry/NamedStringArrayTools.h"
#include "tests/support/ForkedProcess.h"

#include <atomic>
#include <functional>
#include <gtest/gtest.h>
#include <optional>
#include <string>
#include <sys/ipc.h>
#include <sys/shm.h>
#include <vector>

using agent::spf::endpointregistry::LockedFile;
using tests::BaseContent;
using tests::Channel;
using tests::Entries;
using tests::ForkedProcess;

namespace {

/// Tables that are removed between being found and being locked.
class NamedStringArrayGone : public tests::NamedStringArrayTest {
protected:
    /// Lets a process begin the operation and, while it waits for the lock, others do something.
    void meanwhile(const std::function<void()>& operation, const std::function<void()>& others) {
        std::optional<LockedFile> lock = table.lock();
        const tests::Openings openings(lockPath);
        ForkedProcess child([&](Channel&) { operation(); });
        openings.wait();
        others();
        lock.reset();
        EXPECT_EQ(child.waitForExit(), 0);
    }

    /// As another process would that has the lock.
    void removeByHand() {
        table.findContainer(table.generation()).markForDeletion();
        table.findBase().markForDeletion();
        EXPECT_FALSE(table.hasBase());
    }

    void replaceByHand() {
        removeByHand();
        table.plant(9, 8, {std::string("\1other\0\0", 8), std::string("\1first\0\0", 8)});
    }

    /// As with the logout of the user who made the table: no other process is told.
    static void removeFromKernel() {
        for (const int id : tests::kernelSegments()) {
            ASSERT_EQ(::shmctl(id, IPC_RMID, nullptr), 0);
        }
    }

    const std::string lockPath = tests::privateFolder("qvNamedStringArray") + "baseLock";
};

} // namespace

TEST_F(NamedStringArrayGone, AreLookedForAgainByInsertion) {
    array.insert("first");
    meanwhile([this] { table.array().insert("next"); }, [this] { removeByHand(); });
    EXPECT_EQ(array.filter({}), Entries{{"next"}});
    EXPECT_EQ(table.generation(), 2U);
    EXPECT_EQ(tests::kernelSegments().size(), 2U);
}

TEST_F(NamedStringArrayGone, AreLookedForAgainByInsertionThatInitialisesThem) {
    table.plantBase({});
    meanwhile([this] { table.array().insert("next"); },
              [this] { table.findBase().markForDeletion(); });
    EXPECT_EQ(array.filter({}), Entries{{"next"}});
    EXPECT_EQ(tests::kernelSegments().size(), 2U);
}

TEST_F(NamedStringArrayGone, AreInsertedIntoWhereTheyWereReplaced) {
    array.insert("first");
    meanwhile([this] { table.array().insert("next"); }, [this] { replaceByHand(); });
    EXPECT_EQ(array.filter({}), (Entries{{"other"}, {"first"}, {"next"}}));
    EXPECT_EQ(tests::kernelSegments().size(), 2U);
}

TEST_F(NamedStringArrayGone, AreErasedFromWhereTheyWereReplaced) {
    array.insert("first");
    meanwhile([this] { table.array().erase("first"); }, [this] { replaceByHand(); });
    EXPECT_EQ(array.filter({}), Entries{{"other"}});
    EXPECT_EQ(tests::kernelSegments().size(), 2U);
}

TEST_F(NamedStringArrayGone, AreMissingToErasure) {
    array.insert("first");
    meanwhile(
        [this] {
            tests::expectMessages(
                [this] { table.array().erase("first"); },
                {{256, "NamedStringArray::erase(): Base shared memory could not be found."}});
        },
        [this] { removeByHand(); });
    EXPECT_EQ(tests::kernelSegments().size(), 0U);
}

TEST_F(NamedStringArrayGone, AreReadWhereTheyWereReplaced) {
    array.insert("first");
    meanwhile(
        [this] {
            EXPECT_EQ(table.array().filter({}), (Entries{{"other"}, {"first"}}));
        },
        [this] { replaceByHand(); });
    meanwhile([this] { EXPECT_EQ(table.dimensions(), tests::Dimensions(2, 8)); },
              [this] { replaceByHand(); });
}

TEST_F(NamedStringArrayGone, AReaderThatWaitedReadsTheTableThatFollowedOneLostToALogout) {
    // The next table counts its generations from the beginning, so its container has the name of
    // the old one's.
    array.insert("first");
    for (const unsigned long width : {16UL, 8UL}) {
        const std::vector<std::string> rows(10, tests::padded("\1next", width));
        meanwhile(
            [&] {
                EXPECT_EQ(table.array().filter({}), Entries(rows.size(), {"next"}));
                EXPECT_EQ(table.dimensions(), tests::Dimensions(rows.size(), width));
            },
            [&] {
                removeFromKernel();
                table.plant(2, width, rows);
            });
    }
    meanwhile([this] { EXPECT_EQ(table.array().filter({}), Entries()); }, removeFromKernel);
}

TEST_F(NamedStringArrayGone, AContainerOfAnotherSizeIsNotReadAsTheTablesOwn) {
    array.insert("first");
    // Rows twice as wide as the base says.
    table.plantContainer(
        2, tests::containerOf(std::vector<std::string>(10, tests::padded("\1longer one", 16))));
    EXPECT_EQ(array.filter({}), Entries());
}

TEST_F(NamedStringArrayGone, AreEmptyToReaders) {
    array.insert("first");
    meanwhile([this] { EXPECT_EQ(table.array().filter({}), Entries()); },
              [this] { removeByHand(); });
    array.insert("first");
    meanwhile([this] { EXPECT_EQ(table.dimensions(), tests::Dimensions(0, 0)); },
              [this] { removeByHand(); });
    EXPECT_EQ(tests::kernelSegments().size(), 0U);
}

TEST_F(NamedStringArrayGone, AreDeletedWhereTheyWereReplaced) {
    array.insert("first");
    meanwhile([this] { table.remove(); }, [this] { replaceByHand(); });
    EXPECT_FALSE(table.hasBase());
    EXPECT_EQ(array.filter({}), Entries());
    EXPECT_EQ(tests::kernelSegments().size(), 0U);
}

TEST_F(NamedStringArrayGone, AreDeletedOnceByTwo) {
    array.insert("first");
    meanwhile([this] { EXPECT_NO_THROW(table.remove()); }, [this] { removeByHand(); });
    EXPECT_EQ(tests::kernelSegments().size(), 0U);
}

TEST_F(NamedStringArrayGone, AndTheLockFileWithThemAreMadeAnew) {
    array.insert("first");
    std::optional<LockedFile> lock = table.lock();
    const tests::Openings openings(lockPath);
    ForkedProcess child([this](Channel&) { table.array().insert("next"); });
    openings.wait();
    removeByHand();
    lock->markForDeletion();
    lock.reset();
    EXPECT_EQ(child.waitForExit(), 0);
    EXPECT_EQ(array.filter({}), Entries{{"next"}});
}

TEST_F(NamedStringArrayGone, AreNeverWrittenToWhenTheyAreDeletedAllTheTime) {
    constexpr unsigned users = 3;
    constexpr unsigned rounds = 200;
    tests::SharedWithChildren<std::atomic<unsigned>> finished;
    tests::Processes children(users + 1, [&](std::size_t number) {
        if (number == users) {
            while (*finished < users) {
                table.remove();
            }
            return;
        }
        auto own = table.array();
        for (unsigned round = 0; round < rounds; ++round) {
            const tests::Entry entry = tests::numbered(static_cast<unsigned>(number));
            own.insert(entry);
            EXPECT_LE(own.filter({entry.front()}).size(), round + 1);
            own.erase(entry);
        }
        ++*finished;
    });
    children.expectSuccess();

    array.insert("last");
    EXPECT_LE(array.filter({"last"}).size(), 1U);
    table.remove();
    // A row in a table that nobody finds would stand in a container that nobody removes.
    EXPECT_EQ(tests::kernelSegments().size(), 0U);
}
