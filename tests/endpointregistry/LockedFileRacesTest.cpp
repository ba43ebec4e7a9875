#include "endpointregistry/LockedFile.h"

#include "foundation/os/FileDescriptor.h"
#include "foundation/os/FileIdentity.h"
#include "tests/endpointregistry/FoldersTools.h"
#include "tests/endpointregistry/LockedFileProcesses.h"
#include "tests/endpointregistry/LockedFileTools.h"
#include "tests/support/ForkedProcess.h"
#include "tests/support/TracedProcess.h"

#include <array>
#include <atomic>
#include <cerrno>
#include <cstddef>
#include <fcntl.h>
#include <functional>
#include <gtest/gtest.h>
#include <optional>
#include <string>
#include <sys/file.h>
#include <sys/stat.h>
#include <thread>
#include <unistd.h>
#include <vector>

using agent::spf::endpointregistry::LockedFile;
using foundation::os::FileDescriptor;
using foundation::os::identityAt;
using foundation::os::identityOf;

namespace {

/// A file that appears and goes again and again, and others that try to catch it unlocked.
class AtomicLockedFile : public tests::LockedFileTest {
protected:
    void expectNeverSeenUnlocked(const std::string& trustee,
                                 const std::function<LockedFile()>& appear) {
        file = LockedFile::getParentPath(parent, trustee, true) + name;
        expectLockedAtEveryStep(appear);
        expectLockedWhoeverLooks(appear);
    }

private:
    enum class Sight { none, locked, unlocked };

    Sight look() const {
        const FileDescriptor found(::open(file.c_str(), O_RDONLY | O_CLOEXEC));
        if (!found) {
            return Sight::none;
        }
        // A file that lost its name before it lost its lock is nobody's any more.
        const bool isUnlocked = ::flock(found.get(), LOCK_SH | LOCK_NB) == 0 &&
                                identityAt(file) == identityOf(found.get());
        return isUnlocked ? Sight::unlocked : Sight::locked;
    }

    void expectLockedAtEveryStep(const std::function<LockedFile()>& appear) const {
        tests::TracedProcess owner([&] { static_cast<void>(appear()); });
        int seen = 0;
        while (owner.run(1)) {
            const Sight sight = look();
            ASSERT_NE(sight, Sight::unlocked);
            seen += sight == Sight::locked ? 1 : 0;
        }
        EXPECT_GT(seen, 0);
    }

    void expectLockedWhoeverLooks(const std::function<LockedFile()>& appear) const {
        const tests::SharedWithChildren<std::atomic<bool>> isOver;
        const tests::SharedWithChildren<std::atomic<int>> seen;
        const tests::SharedWithChildren<std::atomic<int>> seenUnlocked;
        tests::Processes watchers(3, [&](std::size_t) {
            while (!*isOver) {
                const Sight sight = look();
                *seen += sight == Sight::none ? 0 : 1;
                *seenUnlocked += sight == Sight::unlocked ? 1 : 0;
            }
        });
        for (int round = 0; round < 500 && !HasFailure(); ++round) {
            const int before = *seen;
            const LockedFile appeared = appear();
            EXPECT_TRUE(appeared.isLocked());
            // With a single core to all, nobody would ever look by chance while it is there.
            tests::waitUntil([&] { return *seen > before; }, "somebody who sees the file");
        }
        *isOver = true;
        watchers.expectSuccess();
        EXPECT_EQ(*seenUnlocked, 0) << "of " << *seen;
    }

    std::string file;
};

/// Processes that compete for one name, each of which removes the file when it had its turn.
class ContendedLockedFile : public tests::LockedFileTest {
protected:
    static constexpr int turns = 300;

    /// Expects to be alone, and to hold the lock of the file that has the name.
    void expectAlone() const {
        const FileDescriptor marker(
            ::open((scratch / "marker").c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0600));
        EXPECT_TRUE(marker) << "another process has the lock, too";
        std::this_thread::yield();
        EXPECT_TRUE(LockedFile::exists(name, parent, ""));
        EXPECT_FALSE(LockedFile::tryLock(name, parent, "").isLocked());
        ::unlink((scratch / "marker").c_str());
    }

    void takeTurnsByTrying() const {
        for (int turn = 0; turn < turns && !HasFailure();) {
            LockedFile file = LockedFile::tryLock(name, parent, "");
            if (file.isLocked()) {
                expectAlone();
                file.markForDeletion();
                ++turn;
            } else {
                std::this_thread::yield();
            }
        }
    }

    void takeTurnsByWaiting() const {
        for (int turn = 0; turn < turns && !HasFailure(); ++turn) {
            LockedFile file = LockedFile::getLock(name, parent, "");
            ASSERT_TRUE(file.isLocked());
            expectAlone();
            file.markForDeletion();
        }
    }

    void takeTurnsByCreating() const {
        for (int turn = 0; turn < turns && !HasFailure();) {
            const LockedFile file = LockedFile::createAndTryLock(name, parent, "");
            if (file.isLocked()) {
                expectAlone();
                ++turn;
            } else {
                std::this_thread::yield();
            }
        }
    }

    const tests::ScratchFolder scratch;
};

} // namespace

using ElectedLockedFile = tests::LockedFileTest;
using KilledOwner = tests::LockedFileTest;

TEST_F(AtomicLockedFile, IsNeverSeenUnlockedWhereItIsCreated) {
    expectNeverSeenUnlocked("", [this] { return LockedFile::createAndTryLock(name, parent, ""); });
}

TEST_F(AtomicLockedFile, IsNeverSeenUnlockedWhereItIsTried) {
    expectNeverSeenUnlocked("", [this] {
        LockedFile file = LockedFile::tryLock(name, parent, "");
        file.markForDeletion();
        return file;
    });
}

TEST_F(AtomicLockedFile, IsNeverSeenUnlockedWhereItIsWaitedFor) {
    expectNeverSeenUnlocked("", [this] {
        LockedFile file = LockedFile::getLock(name, parent, "");
        file.markForDeletion();
        return file;
    });
}

TEST_F(AtomicLockedFile, IsNeverSeenUnlockedWhereItIsShared) {
    tests::provideSharedFolder();
    const std::string group = tests::ownGroup();
    expectNeverSeenUnlocked(group,
                            [&] { return LockedFile::createAndTryLock(name, parent, group); });
}

TEST_F(ContendedLockedFile, HasOneHolderAtATimeAmongThoseThatTry) {
    tests::Processes(6, [this](std::size_t) { takeTurnsByTrying(); }).expectSuccess();
}

TEST_F(ContendedLockedFile, HasOneHolderAtATimeAmongThoseThatWait) {
    tests::Processes(6, [this](std::size_t) { takeTurnsByWaiting(); }).expectSuccess();
}

TEST_F(ContendedLockedFile, HasOneHolderAtATimeAmongThoseThatCreateTryAndWait) {
    tests::Processes(6, [this](std::size_t number) {
        switch (number % 3) {
        case 0:
            return takeTurnsByCreating();
        case 1:
            return takeTurnsByTrying();
        default:
            return takeTurnsByWaiting();
        }
    }).expectSuccess();
}

TEST_F(ElectedLockedFile, IsCreatedByExactlyOneOfManyProcesses) {
    constexpr unsigned candidates = 32;
    constexpr int rounds = 200;
    const tests::SharedWithChildren<std::array<std::atomic<int>, rounds>> winners;
    const tests::SharedWithChildren<tests::Barrier> barrier;
    barrier->expect(candidates);
    tests::Processes(candidates, [&](std::size_t) {
        for (std::size_t round = 0; round < rounds; ++round) {
            barrier->wait();
            std::optional<LockedFile> file(LockedFile::createAndTryLock(name, parent, ""));
            if (file->isLocked()) {
                ++(*winners)[round];
            } else {
                EXPECT_EQ(file->getLockError(), EEXIST);
            }
            barrier->wait();
            EXPECT_TRUE(LockedFile::exists(name, parent, ""));
            EXPECT_TRUE(LockedFile::isLocked(name, parent, ""));
            barrier->wait();
            file.reset();
            barrier->wait();
            EXPECT_FALSE(LockedFile::exists(name, parent, ""));
        }
    }).expectSuccess();
    for (const std::atomic<int>& won : *winners) {
        EXPECT_EQ(won, 1);
    }
}

TEST_F(KilledOwner, LeavesAFinishedFileOrNone) {
    LockedFile::getParentPath(parent, "", true);
    int left = 0;
    for (int round = 0; round < 100; ++round) {
        const tests::SharedWithChildren<std::atomic<int>> made;
        tests::ForkedProcess owner([&](tests::Channel&) {
            while (true) {
                LockedFile::createAndTryLock(name, parent, "");
                ++*made;
            }
        });
        tests::waitUntil([&] { return *made > round % 10; }, "files that come and go");
        owner.kill();

        if (LockedFile::exists(name, parent, "")) {
            ++left;
            EXPECT_TRUE(S_ISREG(tests::statusOf(path()).st_mode));
            EXPECT_EQ(tests::modeOf(path()), 0400U);
            EXPECT_FALSE(LockedFile::isLocked(name, parent, ""));
            LockedFile::destruct(name, parent, "");
        }
        // Whatever else was under way is gone as soon as the next one is made.
        EXPECT_TRUE(LockedFile::createAndTryLock(name, parent, "").isLocked());
        EXPECT_EQ(tests::namesIn(folder()), std::vector<std::string>{});
    }
    RecordProperty("files left", left);
}
