#include "tests/platform/SysVTools.h"

#include "sharedmemory/RecordDirectory.h"
#include "sharedmemory/UnnamedRecord.h"

#include <filesystem>
#include <gtest/gtest.h>
#include <string>
#include <sys/file.h>

namespace {

namespace accounts = tests::accounts;
namespace fs = std::filesystem;
namespace sysv = tests::sysv;
using agent::spf::sharedmemory::RecordDirectory;
using agent::spf::sharedmemory::SegmentToken;
using agent::spf::sharedmemory::UnnamedRecord;
using sysv::as;
using sysv::createForFriends;
using sysv::findForFriends;
using sysv::useTheServiceForFriends;
using tests::SharedMemory;

/// The records of removed segments, which tell their owners to remove them from the kernel.
class SysVRemovedRecords : public sysv::SysVUsersTest {
protected:
    /// What stands behind the caller's bytes of the only segment.
    static std::string trailer() {
        const std::string content = sysv::contentOf(sysv::onlySegment().id);
        return content.substr(content.size() - sizeof(SegmentToken));
    }
};

TEST_F(SysVRemovedRecords, OfAnotherMembersSegmentAreLeftAsANote) {
    as(accounts::anna, [] { createForFriends("name").makePersistent(); });
    const std::string path = sysv::recordOf("name", accounts::friends);
    const std::string content = sysv::fileContent(path);
    const auto record = sysv::readRecord(path);
    std::string expected = trailer();
    EXPECT_TRUE(std::equal(expected.begin(), expected.end(), record.token.begin(),
                           [](char there, unsigned char wanted) {
                               return static_cast<unsigned char>(there) == wanted;
                           }));
    as(accounts::ben, [] { findForFriends("name").markForDeletion(); });
    EXPECT_FALSE(fs::exists(path)) << "the name is free at once";
    ASSERT_EQ(sysv::hiddenRecords().size(), 1U);
    EXPECT_EQ(sysv::hiddenRecords()[0],
              sysv::recordFolder(accounts::friends) + UnnamedRecord::hiddenName(record.token));
    EXPECT_EQ(sysv::fileContent(sysv::hiddenRecords()[0]), content);
    expected[0] = static_cast<char>(~expected[0]);
    EXPECT_EQ(trailer(), expected) << "and so say the segment's own bytes";

    as(accounts::anna, sysv::useTheService);
    as(accounts::anna, [] { sysv::useTheServiceFor(accounts::family); });
    as(accounts::ben, useTheServiceForFriends);
    EXPECT_EQ(sysv::onlySegment().id, record.id) << "for that trustee, and its owner";
    as(accounts::anna, useTheServiceForFriends);
    EXPECT_EQ(sysv::segments().size(), 0U);
    EXPECT_EQ(sysv::hiddenRecords().size(), 0U);
}

TEST_F(SysVRemovedRecords, OfOnesOwnSegmentGoWithIt) {
    as(accounts::anna, [] { createForFriends("name"); });
    EXPECT_EQ(sysv::allRecords().size(), 0U);
    as(accounts::anna, [] { createForFriends("name").makePersistent(); });
    findForFriends("name").markForDeletion();
    EXPECT_EQ(sysv::allRecords().size(), 0U) << "root may remove all";
}

TEST_F(SysVRemovedRecords, WhoseOwnerIsGoneForGoodAreRootsToRemove) {
    as(accounts::anna, [] { createForFriends("name").makePersistent(); });
    as(accounts::ben, [] { findForFriends("name").markForDeletion(); });
    EXPECT_EQ(sysv::segments().size(), 1U);
    useTheServiceForFriends();
    EXPECT_EQ(sysv::segments().size(), 0U);
}

TEST_F(SysVRemovedRecords, WhoseSegmentIsGoneAreRemovedAlone) {
    as(accounts::anna, [] { createForFriends("name").makePersistent(); });
    as(accounts::ben, [] { findForFriends("name").markForDeletion(); });
    sysv::removeFromKernel(sysv::onlySegment().id);
    EXPECT_EQ(sysv::hiddenRecords().size(), 1U);
    as(accounts::anna, useTheServiceForFriends);
    EXPECT_EQ(sysv::hiddenRecords().size(), 0U);
}

TEST_F(SysVRemovedRecords, AnyMemberRemovesANoteWhoseSegmentIsGone) {
    // Their owner may never come back.
    as(accounts::anna, [] { createForFriends("name").makePersistent(); });
    as(accounts::ben, [] { findForFriends("name").markForDeletion(); });
    as(accounts::ben, useTheServiceForFriends);
    ASSERT_EQ(sysv::hiddenRecords().size(), 1U) << "there is a segment to be removed yet";
    sysv::removeFromKernel(sysv::onlySegment().id);
    as(accounts::ben, useTheServiceForFriends);
    EXPECT_EQ(sysv::hiddenRecords().size(), 0U);
}

TEST_F(SysVRemovedRecords, ThatSomebodyIsAtAreLeftAloneMeanwhile) {
    as(accounts::anna, [] { createForFriends("name").makePersistent(); });
    as(accounts::ben, [] { findForFriends("name").markForDeletion(); });
    {
        const foundation::os::FileDescriptor held(
            ::open(sysv::hiddenRecords().at(0).c_str(), O_RDONLY | O_CLOEXEC));
        ASSERT_EQ(::flock(held.get(), LOCK_EX | LOCK_NB), 0);
        as(accounts::anna, useTheServiceForFriends);
        EXPECT_EQ(sysv::hiddenRecords().size(), 1U);
        EXPECT_EQ(sysv::segments().size(), 1U);
    }
    as(accounts::anna, useTheServiceForFriends);
    EXPECT_EQ(sysv::segments().size(), 0U);
}

TEST_F(SysVRemovedRecords, CannotBeTakenAwayWhileSomebodyIsAtThemButTheirSegmentCan) {
    as(accounts::anna, [] { createForFriends("name").makePersistent(); });
    const std::string path = sysv::recordOf("name", accounts::friends);
    {
        const foundation::os::FileDescriptor held(::open(path.c_str(), O_RDONLY | O_CLOEXEC));
        ASSERT_EQ(::flock(held.get(), LOCK_EX | LOCK_NB), 0);
        as(accounts::ben, [] {
            findForFriends("name").markForDeletion();
            EXPECT_FALSE(findForFriends("name").isAttached());
        });
        EXPECT_TRUE(fs::exists(path));
    }
    as(accounts::ben, [] { EXPECT_TRUE(createForFriends("name").isCreator()); });
    as(accounts::anna, useTheServiceForFriends);
    EXPECT_EQ(sysv::segments().size(), 0U);
}

TEST_F(SysVRemovedRecords, AreNotHeldByAChildThatWasForkedMeanwhile) {
    // Another thread of the maker may fork at any moment.
    const foundation::os::Group none("");
    const auto directory = RecordDirectory::openOrCreate(none);
    auto record = UnnamedRecord::create(directory);
    tests::ForkedProcess child([](tests::Channel& channel) { channel.receive(); });
    ASSERT_EQ(record.giveName(directory.at("name")), 0);
    const foundation::os::FileDescriptor named(
        ::open((sysv::recordFolder() + "name").c_str(), O_RDONLY | O_CLOEXEC));
    EXPECT_EQ(::flock(named.get(), LOCK_EX | LOCK_NB), 0);
    child.kill();
    fs::remove(sysv::recordFolder() + "name");
}

} // namespace
