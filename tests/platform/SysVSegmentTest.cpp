#include "tests/platform/SysVTools.h"

#include <algorithm>
#include <atomic>
#include <cstdint>
#include <gtest/gtest.h>
#include <iomanip>
#include <list>
#include <stdexcept>
#include <string>
#include <sys/resource.h>
#include <sys/stat.h>
#include <utility>

namespace {

namespace sysv = tests::sysv;
using sysv::create;
using sysv::createOrFind;
using sysv::find;
using tests::bytesOf;
using tests::Channel;
using tests::ForkedProcess;
using tests::SharedMemory;

class SysVSegment : public sysv::SysVTest {};

TEST_F(SysVSegment, IsItsUsersAloneUnderAnyUmask) {
    for (const mode_t mask : {0000U, 0022U, 0077U, 0777U}) {
        EXPECT_EQ(tests::runInChild([mask] {
                      ::umask(mask);
                      const SharedMemory memory = create("name");
                      const auto segment = sysv::onlySegment();
                      EXPECT_EQ(segment.mode, 0600U);
                      EXPECT_EQ(segment.owner, ::geteuid());
                      EXPECT_EQ(segment.creator, ::geteuid());
                  }),
                  0)
            << std::oct << mask;
    }
}

TEST_F(SysVSegment, IsOneOfTheKernels) {
    const SharedMemory memory = create("name");
    EXPECT_EQ(sysv::onlySegment().key, sysv::keysOf("name")[0]);
    EXPECT_GE(sysv::onlySegment().size, tests::someSize);
    EXPECT_TRUE(tests::segmentFiles().empty());
}

TEST_F(SysVSegment, IsNoneOfPosixSharedMemory) {
    const SharedMemory memory = create("name");
    EXPECT_FALSE(tests::find("name").isAttached());
    const SharedMemory other = tests::create("name");
    EXPECT_TRUE(other.isCreator());
    bytesOf(other)[0] = 7;
    EXPECT_EQ(bytesOf(find("name"))[0], 0);
}

TEST_F(SysVSegment, IsLeftByEveryHandleThatIsGone) {
    {
        SharedMemory memory = create("name");
        memory.makePersistent();
        EXPECT_EQ(sysv::onlySegment().attachments, 1U);
        const SharedMemory finder = find("name");
        EXPECT_EQ(sysv::onlySegment().attachments, 2U);
        EXPECT_FALSE(create("name").isAttached());
        EXPECT_FALSE(find("name", SIZE_MAX).isAttached());
        EXPECT_THROW(createOrFind("name", SIZE_MAX), std::runtime_error);
        EXPECT_EQ(sysv::onlySegment().attachments, 2U);
    }
    EXPECT_EQ(sysv::onlySegment().attachments, 0U);
    find("name").markForDeletion();
}

TEST_F(SysVSegment, IsNotMadeWhereItsSizeIsRefused) {
    EXPECT_THROW(create("name", SIZE_MAX - 20), std::runtime_error);
    EXPECT_THROW(create("name", std::size_t{1} << 62U), std::runtime_error);
    EXPECT_EQ(sysv::segments().size(), 0U);
}

TEST_F(SysVSegment, IsNotNamedAnyMoreOnceAnotherProgramHasRemovedIt) {
    const SharedMemory memory = create("name");
    bytesOf(memory)[0] = 7;
    sysv::removeFromKernel(sysv::onlySegment().id);
    EXPECT_FALSE(memory.isStillNamed());
    EXPECT_FALSE(find("name").isAttached());
    const SharedMemory later = create("name");
    EXPECT_TRUE(later.isCreator());
    EXPECT_FALSE(memory.isStillNamed());
    EXPECT_EQ(bytesOf(memory)[0], 7);
}

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

// UndefinedBehaviorSanitizer, which is on together with AddressSanitizer here, probes memory
// through a pipe and takes every object for a bad one when it can open none.
#ifdef __SANITIZE_ADDRESS__
constexpr bool canDoWithoutDescriptors = false;
#else
constexpr bool canDoWithoutDescriptors = true;
#endif

class SysVWithoutDescriptors : public sysv::SysVUsersTest {
protected:
    /// Runs `body` as anna in a process that can open nothing.
    static void asAnna(const std::function<void()>& body) {
        sysv::as(tests::accounts::anna, [&] {
            const rlimit none{0, 0};
            EXPECT_EQ(::setrlimit(RLIMIT_NOFILE, &none), 0);
            body();
        });
    }

    void SetUp() override {
        SysVUsersTest::SetUp();
        if (!canDoWithoutDescriptors) {
            GTEST_SKIP() << "the sanitizers need descriptors themselves";
        }
    }
};

TEST_F(SysVWithoutDescriptors, FindsItsPrivateSegment) {
    sysv::as(tests::accounts::anna, [] { create("name").makePersistent(); });
    asAnna([] {
        SharedMemory found = find("name");
        EXPECT_TRUE(found.isAttached());
        found.markForDeletion();
    });
}

TEST_F(SysVWithoutDescriptors, DoesNotTakeAGroupsSegmentForMissing) {
    const auto ben = tests::accounts::ben;
    sysv::as(ben, [] { sysv::createForFriends("name").makePersistent(); });
    asAnna([] {
        EXPECT_THROW(sysv::findForFriends("name"), std::runtime_error);
        EXPECT_THROW(sysv::createForFriends("name"), std::runtime_error);
        EXPECT_THROW(sysv::createOrFindForFriends("name"), std::runtime_error);
        EXPECT_THROW(find("name"), std::runtime_error) << "looks in all groups";
    });
    sysv::as(ben, [] { sysv::findForFriends("name").markForDeletion(); });
}

} // namespace
