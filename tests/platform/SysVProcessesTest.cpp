#include "tests/platform/SysVTools.h"

#include <atomic>
#include <cstdint>
#include <gtest/gtest.h>
#include <list>
#include <utility>

namespace {

namespace sysv = tests::sysv;
using sysv::create;
using sysv::find;
using tests::bytesOf;
using tests::Channel;
using tests::ForkedProcess;
using tests::SharedMemory;

class SysVProcesses : public sysv::SysVTest {};

TEST_F(SysVProcesses, AttachToWhatOthersMade) {
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
    EXPECT_FALSE(found.isStillNamed());
}

TEST_F(SysVProcesses, LeavePersistentSegmentsBehind) {
    EXPECT_EQ(tests::runInChild([] {
                  SharedMemory memory = create("name");
                  memory.makePersistent();
                  bytesOf(memory)[0] = 7;
              }),
              0);
    SharedMemory found = find("name");
    ASSERT_TRUE(found.isAttached());
    EXPECT_EQ(bytesOf(found)[0], 7);
    found.markForDeletion();
}

TEST_F(SysVProcesses, LeaveTheirSegmentsBehindWhenTheyAreKilled) {
    ForkedProcess owner([](Channel& channel) {
        const SharedMemory memory = create("name");
        channel.send("made");
        channel.receive();
    });
    owner.channel().receive();
    owner.kill();
    SharedMemory found = find("name");
    EXPECT_TRUE(found.isAttached());
    EXPECT_FALSE(create("name").isAttached());
    found.markForDeletion();
}

TEST_F(SysVProcesses, KeepInheritedHandlesAttachedWithoutOwningTheirSegments) {
    SharedMemory creator = create("created");
    SharedMemory persistent = create("marked");
    persistent.makePersistent();
    {
        SharedMemory marked = find("marked");
        marked.markForDeletion();
        EXPECT_EQ(tests::runInChild([&] {
                      EXPECT_TRUE(creator.isAttached());
                      EXPECT_FALSE(creator.isCreator());
                      EXPECT_TRUE(creator.isStillNamed());
                      bytesOf(creator)[0] = 7;
                      const SharedMemory ended = std::move(creator);
                      marked = SharedMemory();
                  }),
                  0);
        EXPECT_TRUE(find("created").isAttached());
        EXPECT_TRUE(find("marked").isAttached());
        EXPECT_TRUE(creator.isCreator());
        EXPECT_TRUE(creator.isStillNamed());
        EXPECT_EQ(bytesOf(creator)[0], 7);
    }
    EXPECT_FALSE(find("marked").isAttached());
}

TEST_F(SysVProcesses, RemoveAnInheritedSegmentWhenTheyMarkItThemselves) {
    SharedMemory creator = create("name");
    EXPECT_EQ(tests::runInChild([&] {
                  creator.markForDeletion();
                  creator = SharedMemory();
              }),
              0);
    EXPECT_FALSE(creator.isStillNamed());
    EXPECT_FALSE(find("name").isAttached());
}

TEST_F(SysVProcesses, CountTogetherInBytesAndWords) {
    constexpr std::uint32_t processCount = 4;
    constexpr std::uint32_t rounds = 20000;
    const SharedMemory memory = create("name");
    std::list<ForkedProcess> processes;
    for (std::uint32_t i = 0; i < processCount; ++i) {
        processes.emplace_back([](Channel& channel) {
            const SharedMemory found = find("name");
            std::atomic_ref word(*static_cast<std::uint32_t*>(found.getPointer()));
            std::atomic_ref byte(bytesOf(found)[4]);
            channel.receive();
            for (std::uint32_t round = 0; round < rounds; ++round) {
                std::uint32_t oldWord = word.load();
                while (!word.compare_exchange_weak(oldWord, oldWord + 1)) {
                }
                std::uint8_t oldByte = byte.load();
                while (
                    !byte.compare_exchange_weak(oldByte, static_cast<std::uint8_t>(oldByte + 1))) {
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
    EXPECT_EQ(*static_cast<std::uint32_t*>(memory.getPointer()), processCount * rounds);
    EXPECT_EQ(bytesOf(memory)[4], static_cast<std::uint8_t>(processCount * rounds));
}

} // namespace
