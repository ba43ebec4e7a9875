#include "endpointregistry/LockedFile.h"
#include "endpointregistry/detail/GroupFiles.h"
#include "tests/endpointregistry/LockWaitingTools.h"
#include "tests/endpointregistry/LockedFileProcesses.h"
#include "tests/endpointregistry/LockedFileTools.h"
#include "tests/support/ForkedProcess.h"

#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstddef>
#include <filesystem>
#include <gtest/gtest.h>
#include <stdexcept>
#include <string>
#include <sys/resource.h>
#include <sys/time.h>
#include <thread>
#include <unistd.h>

using namespace agent::spf::endpointregistry;
using namespace std::chrono_literals;
using tests::Channel;
using tests::ForkedProcess;

namespace {

namespace fs = std::filesystem;
using Clock = std::chrono::steady_clock;

const std::string privately;

class LockWaiting : public tests::LockedFileTest {
protected:
    groupfiles::LockOrHolder lockWithin(std::chrono::milliseconds timeout) const {
        return groupfiles::getLockWithin(name, parent, privately, Waiting::forOneHolder(timeout));
    }

    void keepLock(Channel& test) const {
        const LockedFile file = LockedFile::getLock(name, parent, "");
        test.send("locked");
        test.receive();
    }

    void expectGivenUp(const groupfiles::LockOrHolder& result, pid_t holder) const {
        EXPECT_FALSE(result.lock.isLocked());
        EXPECT_EQ(result.lock.getLockError(), EWOULDBLOCK);
        EXPECT_EQ(result.holder, holder);
        EXPECT_TRUE(LockedFile::exists(name, parent, ""));
    }
};

std::chrono::nanoseconds processorTime() {
    rusage usage{};
    ::getrusage(RUSAGE_SELF, &usage);
    const auto timeOf = [](const timeval& time) {
        return std::chrono::seconds(time.tv_sec) + std::chrono::microseconds(time.tv_usec);
    };
    return timeOf(usage.ru_utime) + timeOf(usage.ru_stime);
}

void raise(std::atomic<Clock::rep>& highest, Clock::rep value) {
    for (auto known = highest.load(); known < value;) {
        if (highest.compare_exchange_weak(known, value)) {
            return;
        }
    }
}

/// Processes that use one lock by turns, each of which takes a moment.
struct Turns {
    static constexpr auto timeout = 50ms;
    static constexpr auto turn = 4ms;

    std::atomic<Clock::rep> longestWait{0};
    /// When a turn has ended that the machine, and not its process, made nearly as long as a
    /// timeout.
    std::atomic<Clock::rep> lastLongTurn{0};

    std::atomic<bool> haveFailed{false};

    bool areOver() const {
        return haveFailed || longestWait > Clock::duration(4 * timeout).count();
    }

    template<typename Lock>
    void take(const Lock& lock) {
        const auto begin = Clock::now();
        const groupfiles::LockOrHolder result = lock(timeout);
        const auto locked = Clock::now();
        if (!result.lock.isLocked()) {
            lock(1h); // Whoever was in the way has said by then how long that turn was.
            EXPECT_GE(lastLongTurn, begin.time_since_epoch().count())
                << result.holder << " was not waited for, and had the lock for a moment only";
            haveFailed = haveFailed || testing::Test::HasFailure();
            return;
        }
        EXPECT_EQ(result.holder, 0);
        raise(longestWait, (locked - begin).count());
        std::this_thread::sleep_for(turn); // What the lock is for.
        const auto end = Clock::now();
        if (end - locked >= timeout / 2) {
            raise(lastLongTurn, end.time_since_epoch().count());
        }
    }
};

} // namespace

TEST_F(LockWaiting, IsNotNeededForALockThatIsFree) {
    for (int i = 0; i < 2; ++i) {
        const groupfiles::LockOrHolder result = lockWithin(0ms);
        EXPECT_TRUE(result.lock.isLocked()) << i;
        EXPECT_EQ(result.holder, 0) << i;
        EXPECT_TRUE(tests::isHeld(path())) << i;
    }
    EXPECT_TRUE(LockedFile::exists(name, parent, "")) << "it outlives its holder";
}

TEST_F(LockWaiting, EndsWithTheProcessIdOfAHolderThatIsStopped) {
    ForkedProcess holder([this](Channel& test) { keepLock(test); });
    ASSERT_EQ(holder.channel().receive(), "locked");
    tests::stop(holder.pid());
    expectGivenUp(lockWithin(50ms), holder.pid());
    EXPECT_TRUE(tests::isStopped(holder.pid()));
    expectGivenUp(lockWithin(0ms), holder.pid());

    holder.kill();
    EXPECT_TRUE(lockWithin(0ms).lock.isLocked());
}

TEST_F(LockWaiting, NamesNobodyWhereTheHolderHasNotSaidWhoItIs) {
    const LockedFile holder = LockedFile::tryLock(name, parent, "");
    expectGivenUp(lockWithin(20ms), 0);
}

TEST_F(LockWaiting, EndsWithTheHolderThatHasBoundedItsOwnWait) {
    const groupfiles::LockOrHolder holder = lockWithin(1h);
    ASSERT_TRUE(holder.lock.isLocked());
    expectGivenUp(lockWithin(20ms), ::getpid());
}

TEST_F(LockWaiting, LastsUntilTheLockIsFree) {
    ForkedProcess holder([this](Channel& test) { keepLock(test); });
    ASSERT_EQ(holder.channel().receive(), "locked");
    const tests::Openings openings(path());
    ForkedProcess waiter([this](Channel& test) {
        EXPECT_TRUE(lockWithin(1h).lock.isLocked());
        test.send("locked");
    });
    openings.wait();
    holder.channel().send("end");
    EXPECT_EQ(holder.waitForExit(), 0);
    EXPECT_EQ(waiter.channel().receive(), "locked");
    EXPECT_EQ(waiter.waitForExit(), 0);
}

TEST_F(LockWaiting, DoesNotEndForThereBeingManyWhoTakeTurns) {
    const tests::SharedWithChildren<Turns> turns;
    tests::Processes takers(24, [&](std::size_t) {
        while (!turns->areOver()) {
            turns->take([this](auto timeout) { return lockWithin(timeout); });
        }
    });
    takers.expectSuccess();
}

TEST_F(LockWaiting, MovesOnToAFileThatReplacedTheOneWaitedFor) {
    ForkedProcess holder([this](Channel& test) { keepLock(test); });
    ASSERT_EQ(holder.channel().receive(), "locked");
    for (const bool isMadeAgain : {false, true}) {
        const std::string old = path() + (isMadeAgain ? " made again" : " removed");
        const tests::Openings openings(path());
        ForkedProcess waiter([this](Channel& test) {
            const groupfiles::LockOrHolder result = lockWithin(1h);
            EXPECT_TRUE(result.lock.isLocked());
            test.send("locked");
            test.receive();
        });
        openings.wait();
        if (isMadeAgain) {
            tests::makeFile(path() + " new", 0400);
            fs::rename(path() + " new", path());
        } else {
            fs::rename(path(), old);
        }
        ASSERT_EQ(waiter.channel().receive(), "locked");
        EXPECT_TRUE(tests::isHeld(path()));
        waiter.channel().send("end");
        EXPECT_EQ(waiter.waitForExit(), 0);
        if (!isMadeAgain) {
            EXPECT_TRUE(tests::isHeld(old)) << "the first holder never let go";
            fs::rename(old, path());
        }
    }
    holder.channel().send("end");
    EXPECT_EQ(holder.waitForExit(), 0);
}

TEST_F(LockWaiting, ReportsWhyAFileCanBeNeitherOpenedNorMade) {
    LockedFile::getLock("other file", parent, "");
    fs::create_directory(path());
    EXPECT_THROW(lockWithin(1h), std::runtime_error);
    fs::remove(path());
    EXPECT_THROW(groupfiles::getLockWithin("", parent, privately, Waiting::forOneHolder(1h)),
                 std::invalid_argument);
    EXPECT_THROW(groupfiles::getLockWithin(name, "", privately, Waiting::forOneHolder(1h)),
                 std::invalid_argument);
}

TEST_F(LockWaiting, TakesNextToNoProcessorTime) {
    const LockedFile holder = LockedFile::tryLock(name, parent, "");
    constexpr auto timeout = 500ms;
    const auto before = processorTime();
    expectGivenUp(lockWithin(timeout), 0);
    EXPECT_LT(processorTime() - before, timeout / 4);
}
