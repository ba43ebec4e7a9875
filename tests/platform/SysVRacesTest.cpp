#include "tests/platform/SysVTools.h"

#include <array>
#include <atomic>
#include <cstdint>
#include <functional>
#include <gtest/gtest.h>
#include <list>
#include <string>
#include <thread>
#include <utility>

namespace {

namespace accounts = tests::accounts;
namespace sysv = tests::sysv;
using tests::Channel;
using tests::ForkedProcess;
using tests::SharedMemory;

constexpr std::uint32_t processCount = 8;
constexpr std::uint32_t roundCount = 60;
constexpr std::size_t raceSize = 50000;

/// What the processes of a race share.
struct Board {
    std::atomic<std::uint32_t> arrivals;
    std::array<std::atomic<std::uint32_t>, roundCount> creators;
    std::atomic<bool> hasFailed;
};

/// Races of anna and ben for one segment of their friends.
class SysVRaces : public sysv::SysVUsersTest {
protected:
    /// Waits until all processes have come here as often as this one, or one of them gives up.
    void meet(std::uint32_t& visits) const {
        ++visits;
        ++board->arrivals;
        while (board->arrivals < visits * processCount && !board->hasFailed) {
            std::this_thread::yield();
        }
    }

    using Step = std::function<SharedMemory(const std::string& name)>;
    using Check = std::function<void(const SharedMemory& memory)>;

    /// Runs `step` in all processes at once, round by round, and keeps what it returns until all
    /// have checked it. Every process leaves its mark in what it has.
    void race(const Step& step, const Check& check) {
        std::list<ForkedProcess> processes;
        for (std::uint32_t i = 0; i < processCount; ++i) {
            processes.emplace_back([this, i, &step, &check](Channel&) {
                accounts::become(i % 2 == 0 ? accounts::anna : accounts::ben);
                std::uint32_t visits = 0;
                for (std::uint32_t round = 0; round < roundCount && !board->hasFailed; ++round) {
                    runRound(i, round, visits, step, check);
                    board->hasFailed = board->hasFailed || testing::Test::HasFailure();
                }
            });
        }
        for (auto& process : processes) {
            ASSERT_EQ(process.waitForExit(), 0);
        }
        for (const auto& creators : board->creators) {
            EXPECT_EQ(creators, 1U);
        }
        sysv::as(accounts::anna, sysv::useTheServiceForFriends);
        sysv::as(accounts::ben, sysv::useTheServiceForFriends);
    }

    sysv::Shared<Board> board;

private:
    void runRound(std::uint32_t i, std::uint32_t round, std::uint32_t& visits, const Step& step,
                  const Check& check) const {
        // The same name each time, so that there are leftovers in the way.
        meet(visits);
        const SharedMemory memory = step("race");
        board->creators.at(round) += memory.isCreator() ? 1 : 0;
        meet(visits);
        if (memory.isAttached()) {
            std::atomic_ref(*static_cast<std::uint32_t*>(memory.getPointer())).fetch_or(1U << i);
        }
        meet(visits);
        check(memory);
        meet(visits);
    }
};

std::uint32_t marksIn(const SharedMemory& memory) {
    return std::atomic_ref(*static_cast<std::uint32_t*>(memory.getPointer())).load();
}

constexpr std::uint32_t allMarks = (1U << processCount) - 1;

TEST_F(SysVRaces, ToCreateHaveOneCreator) {
    race(
        [](const std::string& name) {
            SharedMemory made = sysv::create(name, raceSize, accounts::friends);
            EXPECT_EQ(made.isAttached(), made.isCreator());
            return made;
        },
        [](const SharedMemory& memory) {
            const SharedMemory found = sysv::find("race", raceSize, accounts::friends);
            ASSERT_TRUE(found.isAttached());
            if (memory.isAttached()) {
                EXPECT_EQ(marksIn(found), marksIn(memory));
            }
        });
}

TEST_F(SysVRaces, ToCreateOrFindHaveOneCreatorAndOneSegment) {
    race(
        [](const std::string& name) {
            SharedMemory made = sysv::createOrFind(name, raceSize, accounts::friends);
            EXPECT_TRUE(made.isAttached());
            EXPECT_TRUE(tests::isZero(tests::bytesOf(made, raceSize).subspan(4)));
            return made;
        },
        [](const SharedMemory& memory) {
            ASSERT_TRUE(memory.isAttached());
            EXPECT_EQ(marksIn(memory), allMarks);
            EXPECT_TRUE(memory.isStillNamed());
        });
}

TEST_F(SysVRaces, AfterARemovalByAnotherMemberHaveOneCreatorAndOneSegment) {
    race(
        [](const std::string& name) {
            SharedMemory made = sysv::createOrFind(name, raceSize, accounts::friends);
            EXPECT_TRUE(made.isAttached());
            made.makePersistent();
            return made;
        },
        [](const SharedMemory& memory) {
            ASSERT_TRUE(memory.isAttached());
            EXPECT_EQ(marksIn(memory), allMarks);
            // Whoever did not make it removes it, so that half of the removals are by others.
            if (!memory.isCreator()) {
                sysv::find("race", raceSize, accounts::friends).markForDeletion();
            }
            EXPECT_TRUE(memory.isCreator() || !memory.isStillNamed());
        });
}

TEST_F(SysVRaces, WithRemovalsNeverShowTwoSegmentsAtATime) {
    constexpr int turnCount = 150;
    struct Count {
        std::atomic<int> living;
        std::atomic<int> made;
    };
    const sysv::Shared<Count> count;
    std::list<ForkedProcess> processes;
    for (std::uint32_t i = 0; i < processCount; ++i) {
        processes.emplace_back([&count, i](Channel&) {
            accounts::become(i % 2 == 0 ? accounts::anna : accounts::ben);
            for (int turn = 0; turn < turnCount; ++turn) {
                SharedMemory memory = sysv::create("name", raceSize, accounts::friends);
                if (memory.isCreator()) {
                    ++count->made;
                    EXPECT_EQ(count->living.fetch_add(1), 0);
                    EXPECT_TRUE(memory.isStillNamed());
                    EXPECT_TRUE(tests::isZero(tests::bytesOf(memory, raceSize)));
                    count->living.fetch_sub(1);
                    memory = SharedMemory();
                }
                const SharedMemory other = sysv::createOrFind("other", raceSize, accounts::friends);
                EXPECT_TRUE(other.isAttached());
            }
        });
    }
    for (auto& process : processes) {
        EXPECT_EQ(process.waitForExit(), 0);
    }
    EXPECT_GT(count->made, 0);
    sysv::as(accounts::anna, sysv::useTheServiceForFriends);
    sysv::as(accounts::ben, sysv::useTheServiceForFriends);
}

} // namespace
