#include "tests/platform/SysVTools.h"
#include "tests/support/TracedProcess.h"

#include <algorithm>
#include <functional>
#include <gtest/gtest.h>
#include <iterator>
#include <memory>
#include <stdexcept>
#include <string>
#include <sys/stat.h>

namespace {

namespace accounts = tests::accounts;
namespace sysv = tests::sysv;
using sysv::as;
using sysv::createForFriends;
using sysv::createOrFindForFriends;
using sysv::findForFriends;
using sysv::useTheService;
using sysv::useTheServiceForFriends;
using tests::bytesOf;
using tests::Channel;
using tests::ForkedProcess;
using tests::SharedMemory;
using tests::someSize;
using tests::TracedProcess;

constexpr bool hasEnded = false;
constexpr int untilTheEnd = 1'000'000;

/// Kills a process that runs `body` at its first step, then another one at its second and so on,
/// until one gets through, and calls `expectations` after each.
void killAtEveryStep(const std::function<void()>& body, int fewestSteps,
                     const std::function<void()>& expectations) {
    int step = 0;
    for (bool wasKilled = true; wasKilled; ++step) {
        SCOPED_TRACE("killed at step " + std::to_string(step));
        {
            TracedProcess process(body);
            wasKilled = process.run(step) != hasEnded;
        }
        expectations();
        if (testing::Test::HasFailure()) {
            return;
        }
    }
    // Far fewer would mean that the child did not do what it is killed for.
    EXPECT_GT(step, fewestSteps);
}

/// Whether the segment is one that a maker has finished, and that nobody is told to remove.
bool isWhole(const SharedMemory& memory) {
    return memory.isAttached() && memory.isStillNamed() && memory.getSize() == someSize &&
           tests::isZero(bytesOf(memory));
}

std::ptrdiff_t countOfMode(mode_t mode) {
    const auto all = sysv::segments();
    return std::ranges::count_if(all, [mode](const auto& one) { return one.mode == mode; });
}

class SysVCrash : public sysv::SysVUsersTest {};

TEST(SysVPrivateCrash, LeavesAWholeSegmentOrNone) {
    killAtEveryStep([] { const SharedMemory memory = sysv::create("name"); }, 10,
                    [] {
                        const bool wasFinished = sysv::find("name").isAttached();
                        {
                            SharedMemory created = sysv::create("name");
                            EXPECT_EQ(created.isCreator(), !wasFinished);
                            created.makePersistent();
                        }
                        {
                            SharedMemory memory = sysv::createOrFind("name");
                            EXPECT_TRUE(isWhole(memory));
                            EXPECT_FALSE(memory.isCreator());
                            EXPECT_EQ(sysv::segments().size(), 1U) << "nothing unfinished remains";
                            EXPECT_EQ(sysv::allRecords().size(), 1U);
                            memory.markForDeletion();
                        }
                        EXPECT_EQ(sysv::segments().size(), 0U);
                    });
}

TEST(SysVPrivateCrash, LeavesNothingUnfinishedOnceTheUserUsesTheService) {
    killAtEveryStep([] { const SharedMemory memory = sysv::create("name"); }, 10,
                    [] {
                        useTheService();
                        SharedMemory finished = sysv::find("name");
                        EXPECT_EQ(sysv::segments().size(), finished.isAttached() ? 1U : 0U);
                        EXPECT_EQ(sysv::allRecords().size(), finished.isAttached() ? 1U : 0U);
                        EXPECT_TRUE(!finished.isAttached() || isWhole(finished));
                        finished.markForDeletion();
                    });
}

void createAsAnna() {
    accounts::become(accounts::anna);
    const SharedMemory memory = createForFriends("name");
}

/// Makes or finds the segment, and leaves it there.
void leaveSegment() {
    SharedMemory memory = createOrFindForFriends("name");
    EXPECT_TRUE(isWhole(memory));
    memory.makePersistent();
}

void leaveSegmentAsBen() {
    accounts::become(accounts::ben);
    SharedMemory memory = createOrFindForFriends("name");
    memory.makePersistent();
    if (memory.getSize() != someSize || !tests::isZero(bytesOf(memory))) {
        throw std::runtime_error("The segment is not whole.");
    }
}

/// What every member is to see when anna was killed and `first` has come first.
void expectRecovery(const std::string& first) {
    const std::string second = first == accounts::anna ? accounts::ben : accounts::anna;
    as(first, [] {
        const bool wasFinished = findForFriends("name").isAttached();
        SharedMemory created = createForFriends("name");
        EXPECT_EQ(created.isCreator(), !wasFinished);
        EXPECT_TRUE(wasFinished || isWhole(created));
        created.makePersistent();
    });
    as(second, [] {
        EXPECT_FALSE(createForFriends("name").isAttached());
        leaveSegment();
    });
    EXPECT_EQ(countOfMode(0660), 1);
    as(first, leaveSegment);
    EXPECT_EQ(sysv::segments().size(), 1U) << "each has used the service";
    EXPECT_EQ(sysv::allRecords().size(), 1U);
    as(second, [] {
        EXPECT_TRUE(isWhole(findForFriends("name")));
        findForFriends("name").markForDeletion();
    });
    as(first, useTheServiceForFriends);
    EXPECT_EQ(sysv::segments().size(), 0U);
    EXPECT_EQ(sysv::allRecords().size(), 0U);
}

TEST_F(SysVCrash, OfACreatorIsRecoveredFromByItsUser) {
    killAtEveryStep(createAsAnna, 20, [] { expectRecovery(accounts::anna); });
}

TEST_F(SysVCrash, OfACreatorIsRecoveredFromByAnotherMember) {
    killAtEveryStep(createAsAnna, 20, [] { expectRecovery(accounts::ben); });
}

TEST_F(SysVCrash, OfACreatorEndsTheWaitOfOthers) {
    int step = 0;
    for (bool wasKilled = true; wasKilled; ++step) {
        SCOPED_TRACE("killed at step " + std::to_string(step));
        auto anna = std::make_unique<TracedProcess>(createAsAnna);
        wasKilled = anna->run(step) != hasEnded;
        ForkedProcess ben([&](Channel& channel) {
            accounts::become(accounts::ben);
            channel.send("begins");
            leaveSegment();
        });
        ASSERT_EQ(ben.channel().receive(), "begins");
        anna.reset();
        ASSERT_EQ(ben.waitForExit(), 0);
        expectRecovery(accounts::ben);
        ASSERT_FALSE(HasFailure());
    }
    EXPECT_GT(step, 20);
}

TEST_F(SysVCrash, OfACreatorThatMeetsAnotherOneLeavesOneSegment) {
    // ben is stopped at each of his steps, and anna comes and is killed meanwhile.
    int step = 0;
    for (bool isOnTheWay = true; isOnTheWay; ++step) {
        SCOPED_TRACE("stopped at step " + std::to_string(step));
        TracedProcess ben(leaveSegmentAsBen);
        isOnTheWay = ben.run(step) != hasEnded;
        {
            // At most so many steps: she may wait for ben, who is stopped.
            constexpr int many = 200;
            TracedProcess anna(createAsAnna);
            anna.run(many);
        }
        if (isOnTheWay) {
            ASSERT_EQ(ben.run(untilTheEnd), hasEnded);
        }
        EXPECT_EQ(countOfMode(0660), 1);
        expectRecovery(accounts::ben);
        ASSERT_FALSE(HasFailure());
    }
}

TEST_F(SysVCrash, OfASegmentWhileItIsMadeLetsItsMakerBeginAgain) {
    // A login manager, for one, removes all of a user's segments when it likes.
    int step = 0;
    for (bool isOnTheWay = true; isOnTheWay; ++step) {
        SCOPED_TRACE("stopped at step " + std::to_string(step));
        TracedProcess ben(leaveSegmentAsBen);
        isOnTheWay = ben.run(step) != hasEnded;
        for (const auto& segment : sysv::segments()) {
            ::shmctl(segment.id, IPC_RMID, nullptr);
        }
        if (isOnTheWay) {
            ASSERT_EQ(ben.run(untilTheEnd), hasEnded);
        }
        EXPECT_EQ(sysv::segments().size(), static_cast<std::size_t>(countOfMode(0660)));
        expectRecovery(accounts::ben);
        ASSERT_FALSE(HasFailure());
    }
}

TEST_F(SysVCrash, OfAMemberThatRemovesASegmentLeavesItWholeOrRemoved) {
    as(accounts::anna, leaveSegment);
    killAtEveryStep(
        [] {
            accounts::become(accounts::ben);
            SharedMemory found = findForFriends("name");
            if (!found.isAttached()) {
                throw std::runtime_error("There is nothing to remove.");
            }
            found.markForDeletion();
        },
        20,
        [] {
            expectRecovery(accounts::ben);
            as(accounts::anna, leaveSegment);
        });
    as(accounts::anna, [] { findForFriends("name").markForDeletion(); });
}

TEST_F(SysVCrash, OfAnOwnerThatCleansUpLeavesTheRestToItsNextUse) {
    const auto prepare = [] {
        as(accounts::anna, [] {
            for (const std::string name : {"removed", "removed too", "kept"}) {
                createForFriends(name).makePersistent();
            }
        });
        as(accounts::ben, [] {
            findForFriends("removed").markForDeletion();
            findForFriends("removed too").markForDeletion();
        });
    };
    prepare();
    killAtEveryStep(
        [] {
            accounts::become(accounts::anna);
            useTheServiceForFriends();
        },
        20,
        [&prepare] {
            as(accounts::anna, useTheServiceForFriends);
            EXPECT_EQ(sysv::segments().size(), 1U);
            EXPECT_EQ(sysv::hiddenRecords().size(), 0U);
            as(accounts::anna, [] {
                SharedMemory kept = findForFriends("kept");
                EXPECT_TRUE(isWhole(kept));
                kept.markForDeletion();
            });
            prepare();
        });
    as(accounts::anna, [] {
        findForFriends("kept").markForDeletion();
        useTheServiceForFriends();
    });
    EXPECT_EQ(sysv::segments().size(), 0U);
}

} // namespace
