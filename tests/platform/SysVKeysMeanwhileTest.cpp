#include "tests/platform/SysVTools.h"
#include "tests/support/TracedProcess.h"

#include <atomic>
#include <functional>
#include <gtest/gtest.h>
#include <list>
#include <stdexcept>
#include <string>
#include <sys/shm.h>
#include <sys/syscall.h>

namespace {

namespace accounts = tests::accounts;
namespace sysv = tests::sysv;
using sysv::as;
using sysv::create;
using sysv::createOrFindForFriends;
using sysv::find;
using sysv::findForFriends;
using sysv::keysOf;
using tests::Channel;
using tests::ForkedProcess;
using tests::SharedMemory;
using tests::TracedProcess;

constexpr int none = -1;
constexpr int untilTheEnd = 10'000'000;

class SysVKeysMeanwhile : public sysv::SysVUsersTest {};

TEST_F(SysVKeysMeanwhile, ThatComeAndGoLetNobodyMakeASecondSegment) {
    constexpr int makerCount = 3;
    constexpr int turnCount = 400;
    struct Board {
        std::atomic<int> living;
        std::atomic<int> made;
        std::atomic<bool> isOver;
    };
    const tests::sysv::Shared<Board> board;
    const auto keys = keysOf("name");
    ForkedProcess planter([&](Channel&) {
        while (!board->isOver) {
            for (std::size_t i = 0; i < 3; ++i) {
                const int id = ::shmget(keys.at(i), 100, IPC_CREAT | IPC_EXCL | 0600);
                if (id != -1) {
                    sysv::removeFromKernel(id);
                }
            }
        }
    });
    std::list<ForkedProcess> makers;
    for (int i = 0; i < makerCount; ++i) {
        makers.emplace_back([&](Channel&) {
            for (int turn = 0; turn < turnCount; ++turn) {
                const SharedMemory memory = create("name");
                if (memory.isCreator()) {
                    ++board->made;
                    EXPECT_EQ(board->living.fetch_add(1), 0);
                    EXPECT_TRUE(memory.isStillNamed());
                    EXPECT_TRUE(find("name").isAttached());
                    board->living.fetch_sub(1);
                }
            }
        });
    }
    for (auto& maker : makers) {
        EXPECT_EQ(maker.waitForExit(), 0);
    }
    board->isOver = true;
    EXPECT_EQ(planter.waitForExit(), 0);
    EXPECT_GT(board->made, 0);
}

void leaveSegmentAs(const std::string& user) {
    accounts::become(user);
    SharedMemory memory = createOrFindForFriends("name");
    memory.makePersistent();
    if (!memory.isStillNamed() || !tests::isZero(tests::bytesOf(memory))) {
        throw std::runtime_error("The segment is not whole.");
    }
}

void removeTheSegment() {
    as(accounts::anna, [] { findForFriends("name").markForDeletion(); });
    as(accounts::ben, sysv::useTheService);
    as(accounts::anna, sysv::useTheService);
    ASSERT_EQ(sysv::segments().size(), 0U);
}

/// Lets ben make the segment, stopped at each of his steps while `change` is made to the keys and
/// anna begins to make it, too. Both end together and must have the same one.
void expectOneSegmentWhenAnnaComes(const std::function<int(key_t)>& before,
                                   const std::function<int(int, key_t)>& change) {
    const auto keys = keysOf("name", accounts::friends);
    int step = 0;
    for (bool isOnTheWay = true; isOnTheWay; ++step) {
        SCOPED_TRACE("stopped at step " + std::to_string(step));
        int planted = before(keys[0]);
        {
            TracedProcess ben([] { leaveSegmentAs(accounts::ben); });
            isOnTheWay = ben.run(step);
            planted = change(planted, keys[0]);
            ForkedProcess anna([](Channel&) { leaveSegmentAs(accounts::anna); });
            if (isOnTheWay) {
                ASSERT_FALSE(ben.run(untilTheEnd));
            }
            ASSERT_EQ(anna.waitForExit(), 0);
        }
        EXPECT_EQ(sysv::segments().size(), planted == none ? 1U : 2U);
        if (planted != none) {
            sysv::removeFromKernel(planted);
        }
        ASSERT_NO_FATAL_FAILURE(removeTheSegment());
    }
    EXPECT_GT(step, 20);
}

TEST_F(SysVKeysMeanwhile, ThatBecomeFreeLetNobodyMakeASecondSegment) {
    expectOneSegmentWhenAnnaComes([](key_t key) { return sysv::plant(key, 0600, "foreign"); },
                                  [](int planted, key_t) {
                                      sysv::removeFromKernel(planted);
                                      return none;
                                  });
}

TEST_F(SysVKeysMeanwhile, ThatAreTakenLetNobodyMakeASecondSegment) {
    expectOneSegmentWhenAnnaComes([](key_t) { return none; },
                                  [](int, key_t key) {
                                      // ben may have it already.
                                      return ::shmget(key, 1, IPC_CREAT | IPC_EXCL | 0600);
                                  });
}

using Arguments = TracedProcess::Arguments;

bool isClaim(const Arguments& ofShmget) {
    return (ofShmget[2] & IPC_CREAT) != 0;
}

bool isFinish(const Arguments& ofShmctl) {
    return ofShmctl[1] == IPC_SET;
}

TEST_F(SysVKeysMeanwhile, ThatAreFinishedBetweenTwoLooksLetNobodyMakeASecondSegment) {
    const auto keys = keysOf("name", accounts::friends);
    constexpr int mostSteps = 60; // anna has gone around in her waiting several times by then.
    for (int step = 0; step < mostSteps; ++step) {
        SCOPED_TRACE("finished before step " + std::to_string(step));
        const int planted = sysv::plant(keys[0], 0600, "foreign");
        TracedProcess ben([] { leaveSegmentAs(accounts::ben); });
        ASSERT_TRUE(ben.runToCall(SYS_shmget, isClaim)); // For the second key.
        sysv::removeFromKernel(planted);
        TracedProcess anna([] { leaveSegmentAs(accounts::anna); });
        ASSERT_TRUE(anna.runToCall(SYS_shmget, isClaim)); // For the first key.
        ASSERT_TRUE(ben.runToCall(SYS_shmctl, isFinish));
        ASSERT_TRUE(anna.run(step));
        ASSERT_FALSE(ben.run(untilTheEnd));
        ASSERT_FALSE(anna.run(untilTheEnd));
        EXPECT_EQ(sysv::segments().size(), 1U);
        ASSERT_NO_FATAL_FAILURE(removeTheSegment());
    }
}

} // namespace
