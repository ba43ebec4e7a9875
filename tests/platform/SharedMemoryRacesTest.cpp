#include "tests/platform/SharedMemoryTools.h"
#include "tests/support/ForkedProcess.h"

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

using tests::Channel;
using tests::create;
using tests::createOrFind;
using tests::find;
using tests::ForkedProcess;
using tests::SharedMemory;

constexpr std::uint32_t processCount = 8;
constexpr std::uint32_t roundCount = 60;
constexpr std::size_t raceSize = 50000;

/// What the processes of a race share.
struct Board {
    std::atomic<std::uint32_t> arrivals;
    std::array<std::atomic<std::uint32_t>, roundCount> creators;
};

class SharedMemoryRaces : public tests::SharedMemoryTest {
protected:
    SharedMemoryRaces()
        : memory(create("board", sizeof(Board)))
        , board(*static_cast<Board*>(memory.getPointer())) {}

    /// Waits until all processes have come here as often as this one.
    void meet(std::uint32_t& visits) {
        ++visits;
        ++board.arrivals;
        while (board.arrivals < visits * processCount) {
            std::this_thread::yield();
        }
    }

    /// Runs `step` in all processes at once, round by round, and keeps what it returns until all
    /// are done with the round. One of them, another one each round, is told to be the first.
    void race(const std::function<SharedMemory(const std::string& name, bool isFirst)>& step) {
        std::list<ForkedProcess> processes;
        for (std::uint32_t i = 0; i < processCount; ++i) {
            processes.emplace_back([&](Channel&) {
                std::uint32_t visits = 0;
                for (std::uint32_t round = 0; round < roundCount; ++round) {
                    meet(visits);
                    const SharedMemory made =
                        step("race " + std::to_string(round), round % processCount == i);
                    board.creators.at(round) += made.isCreator() ? 1 : 0;
                    meet(visits);
                }
            });
        }
        for (auto& process : processes) {
            ASSERT_EQ(process.waitForExit(), 0);
        }
        for (const auto& creators : board.creators) {
            EXPECT_EQ(creators, 1U);
        }
    }

    void TearDown() override {
        { const SharedMemory ended = std::move(memory); }
        SharedMemoryTest::TearDown();
    }

private:
    SharedMemory memory;
    Board& board;
};

TEST_F(SharedMemoryRaces, ToCreateHaveOneCreator) {
    race([](const std::string& name, bool /*isFirst*/) {
        SharedMemory made = create(name, raceSize);
        EXPECT_EQ(made.isAttached(), made.isCreator());
        return made;
    });
}

TEST_F(SharedMemoryRaces, ToCreateOrFindHaveOneCreatorAndShowWholeSegmentsOnly) {
    race([](const std::string& name, bool /*isFirst*/) {
        SharedMemory made = createOrFind(name, raceSize);
        EXPECT_TRUE(made.isAttached());
        EXPECT_TRUE(tests::isZero(tests::bytesOf(made, raceSize)));
        return made;
    });
}

TEST_F(SharedMemoryRaces, ToFindShowWholeSegmentsOnly) {
    race([](const std::string& name, bool isFirst) {
        SharedMemory found = isFirst ? create(name, raceSize) : find(name, raceSize);
        while (!found.isAttached()) {
            // There, but too small, would be a segment half made.
            const bool isThere = find(name, 1).isAttached();
            found = find(name, raceSize);
            EXPECT_TRUE(found.isAttached() || !isThere);
        }
        EXPECT_TRUE(tests::isZero(tests::bytesOf(found, raceSize)));
        return found;
    });
}

TEST_F(SharedMemoryRaces, ToCreateOrFindAttachAlsoWhileOthersRemoveTheSegment) {
    std::list<ForkedProcess> processes;
    for (int i = 0; i < 4; ++i) {
        processes.emplace_back([](Channel&) {
            for (int turn = 0; turn < 500; ++turn) {
                EXPECT_TRUE(createOrFind("name", raceSize).isAttached());
            }
        });
    }
    for (auto& process : processes) {
        EXPECT_EQ(process.waitForExit(), 0);
    }
}

TEST_F(SharedMemoryRaces, LostByAKilledProcessLeaveNothingButAWholeSegment) {
    for (int round = 0; round < 50; ++round) {
        ForkedProcess maker([](Channel& channel) {
            channel.send("begun");
            for (;;) {
                create("name", raceSize);
            }
        });
        maker.channel().receive();
        maker.kill();
        SharedMemory memory = createOrFind("name", raceSize);
        ASSERT_TRUE(memory.isAttached());
        EXPECT_TRUE(tests::isZero(tests::bytesOf(memory, raceSize)));
        memory.markForDeletion();
        // Making one tidies up what the killed process may have been making.
        const SharedMemory other = create("other");
        EXPECT_EQ(tests::segmentFiles().size(), 3U);
    }
}

} // namespace
