#include "tests/platform/SysVTools.h"
#include "tests/support/Sanitizers.h"

#include <cstdint>
#include <filesystem>
#include <functional>
#include <gtest/gtest.h>
#include <iomanip>
#include <stdexcept>
#include <string>
#include <sys/resource.h>
#include <sys/stat.h>

namespace {

namespace sysv = tests::sysv;
using sysv::create;
using sysv::createOrFind;
using sysv::find;
using tests::bytesOf;
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
    EXPECT_EQ(sysv::onlySegment().key, IPC_PRIVATE);
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

TEST_F(SysVSegment, IsFoundWhenItIsLockedIntoMemory) {
    const SharedMemory memory = create("name");
    if (::shmctl(sysv::onlySegment().id, SHM_LOCK, nullptr) != 0) {
        GTEST_SKIP() << "needs to lock memory";
    }
    EXPECT_TRUE(find("name").isAttached());
    EXPECT_FALSE(create("name").isAttached());
    EXPECT_TRUE(memory.isStillNamed());
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
    sysv::useTheService();
}

TEST_F(SysVSegment, TheUsersDirectoryOfRecordsIsNotReachedThroughALink) {
    sysv::useTheService(); // Makes the directory.
    const std::string directory = sysv::recordFolder().substr(0, sysv::recordFolder().size() - 1);
    const std::string elsewhere = directory + " elsewhere";
    std::filesystem::rename(directory, elsewhere);
    std::filesystem::create_symlink(elsewhere, directory);
    EXPECT_THROW(find("name"), std::runtime_error);
    EXPECT_THROW(create("name"), std::runtime_error);
    EXPECT_TRUE(std::filesystem::is_empty(elsewhere));
    std::filesystem::remove(directory);
    std::filesystem::rename(elsewhere, directory);
    EXPECT_TRUE(create("name").isCreator());
}

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
        if (!tests::canDoWithoutDescriptors) {
            GTEST_SKIP() << tests::whyDescriptorsAreNeeded;
        }
    }
};

TEST_F(SysVWithoutDescriptors, DoesNotTakeItsPrivateSegmentForMissing) {
    sysv::as(tests::accounts::anna, [] { create("name").makePersistent(); });
    asAnna([] {
        EXPECT_THROW(find("name"), std::runtime_error);
        EXPECT_THROW(create("name"), std::runtime_error);
        EXPECT_THROW(createOrFind("name"), std::runtime_error);
    });
    sysv::as(tests::accounts::anna, [] { find("name").markForDeletion(); });
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
