#include "endpointregistry/detail/LockHolder.h"

#include "endpointregistry/LockedFile.h"
#include "endpointregistry/detail/GroupFiles.h"
#include "foundation/os/FileDescriptor.h"
#include "tests/endpointregistry/FoldersTools.h"
#include "tests/endpointregistry/LockedFileTools.h"
#include "tests/endpointregistry/SharingTools.h"
#include "tests/support/ForkedProcess.h"
#include "tests/support/TestAccounts.h"

#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstdint>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <limits>
#include <memory>
#include <optional>
#include <string>
#include <sys/types.h>
#include <thread>
#include <unistd.h>
#include <vector>

using namespace agent::spf::endpointregistry;
using namespace std::chrono_literals;
using foundation::os::FileDescriptor;
using tests::Channel;
using tests::ForkedProcess;

namespace {

const std::string privately;

class LockHolder : public tests::LockedFileTest {
protected:
    std::optional<HolderMark> holder() const { return findHolder(tests::openFile(path()).get()); }

    std::unique_ptr<LockedFile> hold() const {
        return std::make_unique<LockedFile>(LockedFile::getLock(name, parent, ""));
    }
};

/// Marks as nobody does who keeps to the rules.
void markWith(const FileDescriptor& file, short type, off_t start, off_t length) {
    struct flock lock {};
    lock.l_type = type;
    lock.l_whence = SEEK_SET;
    lock.l_start = start;
    lock.l_len = length;
    ASSERT_EQ(::fcntl(file.get(), F_OFD_SETLK, &lock), 0) << start << " errno " << errno;
}

} // namespace

TEST_F(LockHolder, IsTheProcessThatWaitedForTheLock) {
    {
        const auto file = hold();
        ASSERT_TRUE(holder());
        EXPECT_EQ(holder()->process, ::getpid());
    }
    EXPECT_FALSE(holder());
    const groupfiles::LockOrHolder bounded =
        groupfiles::getLockWithin(name, parent, privately, Waiting::forOneHolder(1h));
    ASSERT_TRUE(holder());
    EXPECT_EQ(holder()->process, ::getpid());
}

TEST_F(LockHolder, IsSaidOfAnExistingFileAsOfANewOne) {
    for (int i = 0; i < 2; ++i) {
        const auto file = hold();
        ASSERT_TRUE(holder()) << i;
        EXPECT_EQ(holder()->process, ::getpid()) << i;
    }
}

TEST_F(LockHolder, IsNotSaidOfLocksThatNobodyWaitsToTake) {
    {
        const LockedFile made = LockedFile::createAndTryLock(name, parent, "");
        ASSERT_TRUE(made.isLocked());
        EXPECT_FALSE(holder());
    }
    const LockedFile taken = LockedFile::tryLock(name, parent, "");
    ASSERT_TRUE(taken.isLocked());
    EXPECT_FALSE(holder());
}

TEST_F(LockHolder, IsAnotherOneWhenTheSameProcessTakesTheLockAgain) {
    auto file = hold();
    const auto first = holder();
    EXPECT_EQ(holder(), first) << "while it is held, nothing changes";
    file.reset();
    file = hold();
    ASSERT_TRUE(first && holder());
    EXPECT_EQ(holder()->process, first->process);
    EXPECT_NE(holder()->number, first->number);
}

TEST_F(LockHolder, IsTheSameOneWhereTheObjectIsMoved) {
    LockedFile first = LockedFile::getLock(name, parent, "");
    const auto before = holder();
    ASSERT_TRUE(before);
    LockedFile second = std::move(first);
    EXPECT_EQ(holder(), before);
    second = LockedFile::getLock("other file", parent, "");
    EXPECT_FALSE(holder());
}

TEST_F(LockHolder, IsForgottenAlthoughAForkedChildHasACopyOfTheFile) {
    auto file = hold();
    ForkedProcess child([](Channel& test) { test.receive(); });
    file.reset();
    EXPECT_FALSE(holder());
    EXPECT_FALSE(tests::isHeld(path()));
    child.channel().send("end");
    EXPECT_EQ(child.waitForExit(), 0);
}

TEST_F(LockHolder, StaysWhenAForkedChildLetsItsCopyGo) {
    auto file = hold();
    const auto before = holder();
    ASSERT_TRUE(before);
    ForkedProcess child([&file](Channel&) { file.reset(); });
    EXPECT_EQ(child.waitForExit(), 0);
    EXPECT_EQ(holder(), before);
    EXPECT_TRUE(tests::isHeld(path()));
}

TEST_F(LockHolder, IsForgottenWhenItIsKilled) {
    ForkedProcess child([this](Channel& test) {
        const auto file = hold();
        test.send("locked");
        test.receive();
    });
    EXPECT_EQ(child.channel().receive(), "locked");
    ASSERT_TRUE(holder());
    EXPECT_EQ(holder()->process, child.pid());
    child.kill();
    EXPECT_FALSE(holder());
}

TEST_F(LockHolder, IsNobodyWhereAnAbsurdMarkStands) {
    hold();
    const FileDescriptor writable(::open(path().c_str(), O_RDWR | O_CLOEXEC));
    const FileDescriptor readable = tests::openFile(path());
    constexpr off_t last = std::numeric_limits<off_t>::max();
    for (const off_t start : std::vector<off_t>{0, 1, last / 2, last}) {
        for (const off_t length : {off_t{1}, off_t{0}}) {
            markWith(readable, F_RDLCK, start, length);
            ASSERT_TRUE(holder()) << start;
            EXPECT_GE(holder()->process, 0) << start;
            EXPECT_NE(holder()->process, ::getpid()) << start;
            EXPECT_TRUE(hold()->isLocked()) << start;
            const groupfiles::LockOrHolder bounded =
                groupfiles::getLockWithin(name, parent, privately, Waiting::once());
            EXPECT_TRUE(bounded.lock.isLocked()) << start;
            EXPECT_EQ(bounded.holder, 0) << start;
            markWith(readable, F_UNLCK, 0, 0);
        }
    }
}

TEST_F(LockHolder, ThatHasLongKeptTheLockIsNotWaitedForAsLongAgain) {
    const LockedFile file = LockedFile::tryLock(name, parent, "");
    const FileDescriptor marked = tests::openFile(path());
    // As if it had been taken ten minutes ago.
    constexpr unsigned numberBits = 40;
    constexpr std::uint64_t process = 4711;
    const auto then = std::chrono::steady_clock::now().time_since_epoch() - 10min;
    const auto number = static_cast<std::uint64_t>(std::chrono::nanoseconds(then).count()) &
                        ((std::uint64_t{1} << numberBits) - 1);
    markWith(marked, F_RDLCK, static_cast<off_t>(process << numberBits | number), 1);
    ASSERT_TRUE(holder());
    EXPECT_GE(holder()->age(), 10min);
    const groupfiles::LockOrHolder result =
        groupfiles::getLockWithin(name, parent, privately, Waiting::briefly(5min, 1h));
    EXPECT_FALSE(result.lock.isLocked());
    EXPECT_EQ(result.holder, process);
}

TEST_F(LockHolder, IsNotOldWhileItIsNew) {
    const auto file = hold();
    ASSERT_TRUE(holder());
    EXPECT_LT(holder()->age(), 10min);
}

TEST_F(LockHolder, WhoLooksLikeManyIsNotWaitedForWithoutEndByWhoeverCanDoWithoutTheLock) {
    const LockedFile file = LockedFile::tryLock(name, parent, "");
    const FileDescriptor marked = tests::openFile(path());
    std::atomic<bool> isOver{false};
    std::thread marking([&] {
        while (!isOver) {
            markHolder(marked.get(), ::getpid());
            unmarkHolder(marked.get());
        }
    });
    const groupfiles::LockOrHolder result =
        groupfiles::getLockWithin(name, parent, privately, Waiting::briefly(1h, 20ms));
    isOver = true;
    marking.join();
    EXPECT_FALSE(result.lock.isLocked());
}

TEST_F(LockHolder, IsUnknownWhereSomebodyKeepsItFromMarking) {
    hold();
    ASSERT_EQ(::chmod(path().c_str(), 0600), 0);
    const FileDescriptor writable(::open(path().c_str(), O_RDWR | O_CLOEXEC));
    markWith(writable, F_WRLCK, 0, 0);
    const LockedFile file = LockedFile::getLock(name, parent, "");
    ASSERT_TRUE(file.isLocked());
    const groupfiles::LockOrHolder refused =
        groupfiles::getLockWithin(name, parent, privately, Waiting::once());
    EXPECT_FALSE(refused.lock.isLocked());
    EXPECT_EQ(refused.holder, 0);
}

namespace {

/// Files of other users, whom only root can act as.
using LockHolderOfOthers = tests::SharingTest;

} // namespace

TEST_F(LockHolderOfOthers, IsSaidAndFoundInAFileThatItMayOnlyRead) {
    const tests::ScratchFolder scratch;
    const std::string path = scratch / "file";
    tests::as(tests::accounts::anna, [&] {
        tests::makeFile(path, 0400);
        ASSERT_EQ(::open(path.c_str(), O_RDWR | O_CLOEXEC), -1);
        const FileDescriptor marked = tests::openFile(path);
        markHolder(marked.get(), ::getpid());
        const FileDescriptor other = tests::openFile(path);
        const auto found = findHolder(other.get());
        ASSERT_TRUE(found);
        EXPECT_EQ(found->process, ::getpid());
        unmarkHolder(marked.get());
        EXPECT_FALSE(findHolder(other.get()));
    });
}
