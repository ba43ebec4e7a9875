#include "tests/platform/SharedMemoryTools.h"
#include "tests/support/ForkedProcess.h"

#include <array>
#include <atomic>
#include <cstdint>
#include <gtest/gtest.h>
#include <list>
#include <string>
#include <thread>
#include <utility>
#include <vector>

namespace {

using tests::bytesOf;
using tests::Channel;
using tests::create;
using tests::find;
using tests::ForkedProcess;
using tests::SharedMemory;

class SharedMemoryProcesses : public tests::SharedMemoryTest {};

TEST_F(SharedMemoryProcesses, AttachToWhatOthersMade) {
    ForkedProcess owner([](Channel& channel) {
        const SharedMemory memory = create("name");
        bytesOf(memory)[0] = 7;
        channel.send("made");
        channel.receive();
        EXPECT_EQ(bytesOf(memory)[1], 8);
    });
    owner.channel().receive();
    const SharedMemory found = find("name");
    ASSERT_TRUE(found.isAttached());
    EXPECT_FALSE(found.isCreator());
    EXPECT_EQ(bytesOf(found)[0], 7);
    bytesOf(found)[1] = 8;
    owner.channel().send("look");
    EXPECT_EQ(owner.waitForExit(), 0);
    EXPECT_FALSE(find("name").isAttached());
}

TEST_F(SharedMemoryProcesses, LeaveTheirSegmentsBehindWhenTheyAreKilled) {
    ForkedProcess owner([](Channel& channel) {
        const SharedMemory memory = create("name");
        channel.send("made");
        channel.receive();
    });
    owner.channel().receive();
    owner.kill();
    SharedMemory found = find("name");
    EXPECT_TRUE(found.isAttached());
    found.markForDeletion();
}

TEST_F(SharedMemoryProcesses, LeavePersistentSegmentsBehind) {
    EXPECT_EQ(tests::runInChild([] {
                  SharedMemory memory = create("name");
                  memory.makePersistent();
              }),
              0);
    SharedMemory found = find("name");
    EXPECT_TRUE(found.isAttached());
    found.markForDeletion();
}

TEST_F(SharedMemoryProcesses, KeepInheritedHandlesAttachedWithoutOwningTheirSegments) {
    SharedMemory creator = create("created");
    SharedMemory persistent = create("marked");
    persistent.makePersistent();
    {
        SharedMemory marked = find("marked");
        marked.markForDeletion();
        EXPECT_EQ(tests::runInChild([&] {
                      EXPECT_TRUE(creator.isAttached());
                      EXPECT_FALSE(creator.isCreator());
                      bytesOf(creator)[0] = 7;
                      const SharedMemory ended = std::move(creator);
                      marked = find("absent");
                  }),
                  0);
        EXPECT_TRUE(find("created").isAttached());
        EXPECT_TRUE(find("marked").isAttached());
        EXPECT_TRUE(creator.isCreator());
        EXPECT_EQ(bytesOf(creator)[0], 7);
    }
    EXPECT_FALSE(find("marked").isAttached());
}

TEST_F(SharedMemoryProcesses, OwnWhatTheyMakeThemselvesAfterAFork) {
    EXPECT_EQ(tests::runInChild([] {
                  {
                      const SharedMemory memory = create("name");
                      EXPECT_TRUE(memory.isCreator());
                  }
                  EXPECT_FALSE(find("name").isAttached());
              }),
              0);
}

TEST_F(SharedMemoryProcesses, CountTogetherInBytesAndWords) {
    constexpr int processCount = 4;
    constexpr std::uint32_t rounds = 20000;
    const SharedMemory memory = create("name");
    const auto word = [](const SharedMemory& in) {
        return std::atomic_ref(*static_cast<std::uint32_t*>(in.getPointer()));
    };
    const auto byte = [](const SharedMemory& in) { return std::atomic_ref(bytesOf(in)[4]); };
    std::list<ForkedProcess> processes;
    for (int i = 0; i < processCount; ++i) {
        processes.emplace_back([&](Channel& channel) {
            // Found anew, so that every process has a mapping of its own.
            const SharedMemory found = find("name");
            channel.receive();
            for (std::uint32_t round = 0; round < rounds; ++round) {
                std::uint32_t oldWord = word(found).load();
                while (!word(found).compare_exchange_weak(oldWord, oldWord + 1)) {
                }
                std::uint8_t oldByte = byte(found).load();
                while (!byte(found).compare_exchange_weak(oldByte,
                                                          static_cast<std::uint8_t>(oldByte + 1))) {
                }
            }
        });
    }
    for (auto& process : processes) {
        process.channel().send("go");
    }
    for (auto& process : processes) {
        EXPECT_EQ(process.waitForExit(), 0);
    }
    EXPECT_EQ(word(memory).load(), processCount * rounds);
    EXPECT_EQ(byte(memory).load(), static_cast<std::uint8_t>(processCount * rounds));
}

TEST_F(SharedMemoryProcesses, SeeWhatWasWrittenBeforeAByteWasSet) {
    constexpr int rounds = 2000;
    const SharedMemory memory = create("name");
    ForkedProcess reader([](Channel&) {
        const SharedMemory found = find("name");
        std::atomic_ref<std::uint8_t> isReady(bytesOf(found)[0]);
        for (int round = 0; round < rounds; ++round) {
            while (isReady.load(std::memory_order_acquire) == 0) {
                std::this_thread::yield();
            }
            EXPECT_EQ(bytesOf(found)[64], static_cast<std::uint8_t>(round));
            isReady.store(0, std::memory_order_release);
        }
    });
    std::atomic_ref<std::uint8_t> isReady(bytesOf(memory)[0]);
    for (int round = 0; round < rounds; ++round) {
        bytesOf(memory)[64] = static_cast<std::uint8_t>(round);
        isReady.store(1, std::memory_order_release);
        while (isReady.load(std::memory_order_acquire) == 1) {
            std::this_thread::yield();
        }
    }
    EXPECT_EQ(reader.waitForExit(), 0);
}

} // namespace
