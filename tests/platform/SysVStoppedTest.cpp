#include "tests/platform/SysVTools.h"
#include "tests/support/TracedProcess.h"

#include <functional>
#include <gtest/gtest.h>
#include <stdexcept>
#include <string>
#include <sys/ipc.h>
#include <sys/syscall.h>

namespace {

namespace accounts = tests::accounts;
namespace sysv = tests::sysv;
using sysv::as;
using sysv::createForFriends;
using sysv::createOrFindForFriends;
using sysv::findForFriends;
using sysv::useTheServiceForFriends;
using tests::SharedMemory;
using tests::TracedProcess;

constexpr bool hasEnded = false;
constexpr int untilTheEnd = 1'000'000;

void expectOf(bool isTrue, const std::string& what) {
    if (!isTrue) {
        throw std::runtime_error(what);
    }
}

/// Stops a process that runs `body` at its first step, another one at its second and so on, until
/// one gets through. What others do meanwhile must end although it is stopped, and it must end well
/// once it goes on.
void stopAtEveryStep(const std::function<void()>& body, int fewestSteps,
                     const std::function<void()>& meanwhile,
                     const std::function<void()>& afterwards) {
    int step = 0;
    for (bool isOnTheWay = true; isOnTheWay; ++step) {
        SCOPED_TRACE("stopped at step " + std::to_string(step));
        TracedProcess process(body);
        isOnTheWay = process.run(step) != hasEnded;
        meanwhile();
        if (isOnTheWay) {
            ASSERT_EQ(process.run(untilTheEnd), hasEnded);
        }
        afterwards();
        ASSERT_FALSE(testing::Test::HasFailure());
    }
    EXPECT_GT(step, fewestSteps);
}

/// Somebody who was stopped on the way, for however long.
class SysVStopped : public sysv::SysVUsersTest {
protected:
    static void removeTheSegment() {
        as(accounts::anna, [] { findForFriends("name").markForDeletion(); });
        as(accounts::ben, useTheServiceForFriends);
        as(accounts::anna, useTheServiceForFriends);
        EXPECT_EQ(sysv::segments().size(), 0U);
        EXPECT_EQ(sysv::allRecords().size(), 0U);
    }

    static void makeAsAnna() {
        accounts::become(accounts::anna);
        SharedMemory memory = createOrFindForFriends("name");
        expectOf(memory.isStillNamed(), "The segment is gone.");
        expectOf(tests::isZero(tests::bytesOf(memory)), "The segment is not new.");
        memory.makePersistent();
    }
};

TEST_F(SysVStopped, AtMakingASegmentHoldsNobodyUp) {
    stopAtEveryStep(
        makeAsAnna, 20,
        [] {
            as(accounts::ben, [] {
                findForFriends("name");
                SharedMemory memory = createOrFindForFriends("name");
                EXPECT_TRUE(memory.isAttached());
                EXPECT_TRUE(memory.isStillNamed());
                EXPECT_FALSE(createForFriends("name").isAttached());
                memory.makePersistent();
            });
        },
        [] {
            EXPECT_EQ(sysv::segments().size(), 1U);
            removeTheSegment();
        });
}

TEST_F(SysVStopped, AtMakingASegmentLosesNothingWhenOthersClearUp) {
    stopAtEveryStep(
        makeAsAnna, 20,
        [] {
            const auto before = sysv::segments();
            as(accounts::anna, useTheServiceForFriends);
            as(accounts::ben, useTheServiceForFriends);
            useTheServiceForFriends();
            EXPECT_EQ(sysv::segments(), before);
        },
        [] {
            EXPECT_EQ(sysv::segments().size(), 1U);
            removeTheSegment();
        });
}

TEST_F(SysVStopped, AtRemovingASegmentHoldsNobodyUp) {
    as(accounts::anna, [] { createForFriends("name").makePersistent(); });
    stopAtEveryStep(
        [] {
            accounts::become(accounts::ben);
            SharedMemory found = findForFriends("name");
            expectOf(found.isAttached(), "There is nothing to remove.");
            found.markForDeletion();
        },
        20,
        [] {
            as(accounts::anna, [] {
                findForFriends("name");
                SharedMemory memory = createOrFindForFriends("name");
                EXPECT_TRUE(memory.isAttached());
                memory.makePersistent();
            });
        },
        [] {
            as(accounts::anna, [] { createOrFindForFriends("name").makePersistent(); });
            as(accounts::anna, useTheServiceForFriends);
            EXPECT_EQ(sysv::segments().size(), 1U);
            EXPECT_EQ(sysv::allRecords().size(), 1U);
        });
    removeTheSegment();
}

TEST_F(SysVStopped, AtClearingUpHoldsNobodyUpAndLosesNothing) {
    const auto prepare = [] {
        as(accounts::anna, [] { createForFriends("removed").makePersistent(); });
        as(accounts::ben, [] { findForFriends("removed").markForDeletion(); });
    };
    prepare();
    stopAtEveryStep(
        [] {
            accounts::become(accounts::anna);
            useTheServiceForFriends();
        },
        20,
        [] {
            for (const std::string& member : {accounts::anna, accounts::ben}) {
                as(member, [] {
                    const SharedMemory memory = createForFriends("name");
                    EXPECT_TRUE(memory.isCreator());
                    EXPECT_TRUE(memory.isStillNamed());
                });
            }
        },
        [&] {
            as(accounts::anna, useTheServiceForFriends);
            EXPECT_EQ(sysv::segments().size(), 0U);
            EXPECT_EQ(sysv::allRecords().size(), 0U);
            prepare();
        });
    as(accounts::anna, useTheServiceForFriends);
}

TEST_F(SysVStopped, AtClearingUpReadsWhatAMakerHasWrittenMeanwhile) {
    as(accounts::anna, useTheServiceForFriends);
    for (const long first : {SYS_flock, SYS_shmget}) {
        int step = 0;
        for (bool isOnTheWay = true; isOnTheWay; ++step) {
            SCOPED_TRACE("call " + std::to_string(first) + ", clearing up stopped at step " +
                         std::to_string(step));
            TracedProcess other([] {
                accounts::become(accounts::anna);
                useTheServiceForFriends();
            });
            {
                TracedProcess maker([] {
                    accounts::become(accounts::anna);
                    const SharedMemory memory = createForFriends("name");
                });
                ASSERT_TRUE(maker.runToCall(first, [](const auto&) { return true; }));
                isOnTheWay = other.run(step) != hasEnded;
                ASSERT_TRUE(maker.runToCall(
                    SYS_shmctl, [](const auto& arguments) { return arguments[1] == IPC_SET; }));
                ASSERT_TRUE(maker.run(1)); // It has its final mode.
            }
            if (isOnTheWay) {
                ASSERT_EQ(other.run(untilTheEnd), hasEnded);
            }
            as(accounts::anna, useTheServiceForFriends);
            EXPECT_EQ(sysv::segments().size(), 0U) << "nobody is told of it any more";
            EXPECT_EQ(sysv::allRecords().size(), 0U);
            ASSERT_FALSE(HasFailure());
        }
        EXPECT_GT(step, 20);
    }
}

} // namespace
