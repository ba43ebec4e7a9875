#include "tests/platform/SysVTools.h"

#include <cerrno>
#include <functional>
#include <grp.h>
#include <gtest/gtest.h>
#include <stdexcept>
#include <string>
#include <sys/stat.h>
#include <system_error>
#include <unistd.h>
#include <vector>

namespace {

namespace accounts = tests::accounts;
namespace sysv = tests::sysv;
using sysv::as;
using sysv::create;
using sysv::createForFriends;
using sysv::createOrFindForFriends;
using sysv::find;
using sysv::findForFriends;
using sysv::Owner;
using tests::bytesOf;
using tests::SharedMemory;
using tests::someSize;

class SysVUsers : public sysv::SysVUsersTest {};

TEST_F(SysVUsers, NeverMeetInPrivateSegmentsOfOneName) {
    Owner anna(accounts::anna, "name", "");
    as(accounts::ben, [] {
        EXPECT_FALSE(find("name").isAttached());
        const SharedMemory own = create("name");
        EXPECT_TRUE(own.isCreator());
        EXPECT_TRUE(tests::isZero(bytesOf(own)));
    });
    EXPECT_FALSE(find("name").isAttached()) << "root";
    as(accounts::anna, [] { EXPECT_EQ(bytesOf(find("name"))[0], 7); });
    anna.end();
}

TEST_F(SysVUsers, AreTheEffectiveOnes) {
    EXPECT_EQ(tests::runInChild([] {
                  const SharedMemory roots = create("name");
                  EXPECT_EQ(::seteuid(accounts::userId(accounts::anna)), 0);
                  EXPECT_FALSE(find("name").isAttached());
                  EXPECT_TRUE(create("name").isCreator());
                  EXPECT_EQ(::seteuid(0), 0);
                  EXPECT_TRUE(find("name").isAttached());
              }),
              0);
}

TEST_F(SysVUsers, GiveASharedSegmentToTheTrusteeUnderAnyUmask) {
    for (const mode_t mask : {0000U, 0022U, 0077U, 0777U}) {
        as(accounts::anna, [mask] {
            ::umask(mask);
            const SharedMemory memory = createForFriends("name");
            const auto segment = sysv::onlySegment();
            EXPECT_EQ(segment.mode, 0660U);
            EXPECT_EQ(segment.group, accounts::groupId(accounts::friends));
            EXPECT_EQ(segment.owner, accounts::userId(accounts::anna));
            EXPECT_EQ(segment.creator, accounts::userId(accounts::anna));
        });
    }
}

TEST_F(SysVUsers, ShareASegmentWithTheTrusteesMembers) {
    Owner anna(accounts::anna, "name", accounts::friends);
    as(accounts::ben, [] {
        const SharedMemory found = findForFriends("name");
        ASSERT_TRUE(found.isAttached());
        EXPECT_FALSE(found.isCreator());
        EXPECT_TRUE(found.isStillNamed());
        EXPECT_EQ(found.getTrustee(), accounts::friends);
        EXPECT_EQ(found.getSize(), someSize);
        EXPECT_EQ(bytesOf(found)[0], 7);
        bytesOf(found)[0] = 8;
        EXPECT_FALSE(createForFriends("name").isAttached());
        EXPECT_TRUE(createOrFindForFriends("name").isAttached());
    });
    as(accounts::anna, [] { EXPECT_EQ(bytesOf(findForFriends("name"))[0], 8); });
    anna.end();
}

TEST_F(SysVUsers, KeepASharedSegmentFromStrangers) {
    Owner anna(accounts::anna, "name", accounts::friends);
    const int id = sysv::onlySegment().id;
    as(accounts::carl, [id] {
        EXPECT_FALSE(findForFriends("name").isAttached());
        EXPECT_FALSE(find("name").isAttached());
        EXPECT_THROW(createForFriends("name"), std::runtime_error);
        EXPECT_THROW(createOrFindForFriends("name"), std::runtime_error);
        for (const int access : {0, SHM_RDONLY}) {
            EXPECT_EQ(::shmat(id, nullptr, access), reinterpret_cast<void*>(-1));
            EXPECT_EQ(errno, EACCES);
        }
        EXPECT_THROW(sysv::removeFromKernel(id), std::system_error);
    });
    EXPECT_EQ(sysv::onlySegment().id, id);
    anna.end();
}

TEST_F(SysVUsers, CannotMakeASegmentForAGroupThatTheyAreNotIn) {
    as(accounts::carl, [] {
        EXPECT_FALSE(findForFriends("name").isAttached());
        EXPECT_THROW(createForFriends("name"), std::runtime_error);
        EXPECT_THROW(createOrFindForFriends("name"), std::runtime_error);
    });
    EXPECT_EQ(sysv::segments().size(), 0U);
    EXPECT_EQ(sysv::pathsIn(sysv::groupsRecords), std::vector<std::string>());
}

/// Runs the body as carl in a process that has the friends' rights, by its effective group or by a
/// supplementary one, as "newgrp" or a service manager hands them out.
void asCarlAmongFriends(bool isEffective, const std::function<void()>& body) {
    EXPECT_EQ(tests::runInChild([&] {
                  const uid_t carl = accounts::userId(accounts::carl);
                  const gid_t own = accounts::groupId(accounts::carl);
                  const gid_t friends = accounts::groupId(accounts::friends);
                  ASSERT_EQ(::setgroups(1, isEffective ? &own : &friends), 0);
                  ASSERT_EQ(::setgid(isEffective ? friends : own), 0);
                  ASSERT_EQ(::setuid(carl), 0);
                  body();
              }),
              0);
}

TEST_F(SysVUsers, MakeAndUseSegmentsForAGroupThatOnlyTheirProcessIsIn) {
    for (const bool isEffective : {true, false}) {
        SCOPED_TRACE(isEffective ? "effective" : "supplementary");
        asCarlAmongFriends(isEffective, [] {
            SharedMemory made = createOrFindForFriends("name");
            EXPECT_TRUE(made.isCreator());
            bytesOf(made)[0] = 7;
            made.makePersistent();
        });
        as(accounts::anna, [] {
            SharedMemory found = findForFriends("name");
            ASSERT_TRUE(found.isAttached());
            EXPECT_EQ(bytesOf(found)[0], 7);
            found.markForDeletion();
        });
        as(accounts::anna, [] { createForFriends("name").makePersistent(); });
        asCarlAmongFriends(isEffective, [] {
            SharedMemory found = findForFriends("name");
            EXPECT_TRUE(found.isAttached());
            EXPECT_TRUE(found.isStillNamed());
            EXPECT_FALSE(createForFriends("name").isAttached());
            found.markForDeletion();
        });
        as(accounts::anna, sysv::useTheServiceForFriends);
        EXPECT_EQ(sysv::segments().size(), 0U);
        sysv::removeAllRecordFolders(); // The next time they make the folder as well.
    }
}

TEST_F(SysVUsers, DoNotMakeASecondSegmentBesideOneThatTheirProcessMayNotAttachTo) {
    Owner ben(accounts::ben, "name", accounts::friends);
    EXPECT_EQ(tests::runInChild([] {
                  const uid_t anna = accounts::userId(accounts::anna);
                  const gid_t own = accounts::groupId(accounts::anna);
                  // A member whose process has left the group.
                  EXPECT_EQ(::setgroups(0, nullptr), 0);
                  EXPECT_EQ(::setgid(own), 0);
                  EXPECT_EQ(::setuid(anna), 0);
                  const auto expectNone = [](const auto& open) {
                      try {
                          EXPECT_FALSE(open("name").isAttached());
                      } catch (const std::runtime_error&) {
                          // That is another way to tell.
                      }
                      EXPECT_EQ(sysv::segments().size(), 1U);
                  };
                  expectNone(createForFriends);
                  expectNone(findForFriends);
                  EXPECT_THROW(createOrFindForFriends("name"), std::runtime_error);
              }),
              0);
    ben.end();
}

TEST_F(SysVUsers, TrustRootAsTheyTrustMembers) {
    const SharedMemory roots = createForFriends("name");
    ASSERT_TRUE(roots.isCreator());
    as(accounts::ben, [] {
        EXPECT_TRUE(findForFriends("name").isAttached());
        EXPECT_FALSE(createForFriends("name").isAttached());
    });
    as(accounts::carl, [] { EXPECT_FALSE(findForFriends("name").isAttached()); });
}

void asRootWithoutRights(const std::function<void()>& body) {
    EXPECT_EQ(tests::runInChild([&] {
                  accounts::becomeRootWithoutIpcRights();
                  body();
              }),
              0);
}

TEST_F(SysVUsers, RootWithoutRightsLeavesAMembersSegmentAlone) {
    Owner anna(accounts::anna, "name", accounts::friends, 9);
    const std::string record = sysv::fileContent(sysv::recordOf("name", accounts::friends));
    asRootWithoutRights([] {
        EXPECT_FALSE(findForFriends("name").isAttached());
        EXPECT_THROW(createForFriends("name"), std::runtime_error);
        EXPECT_THROW(createOrFindForFriends("name"), std::runtime_error);
        EXPECT_TRUE(createForFriends("other").isCreator());
        EXPECT_TRUE(create("name").isCreator());
    });
    EXPECT_EQ(sysv::fileContent(sysv::recordOf("name", accounts::friends)), record);
    EXPECT_EQ(sysv::segments().size(), 1U);
    as(accounts::ben, [] {
        const SharedMemory found = findForFriends("name");
        ASSERT_TRUE(found.isAttached());
        EXPECT_EQ(bytesOf(found)[0], 9);
    });
    anna.end();
    EXPECT_EQ(sysv::allRecords().size(), 0U);
}

TEST_F(SysVUsers, RootWithoutRightsKeepsTheNoteOfASegmentThatItMayNotRemove) {
    as(accounts::anna, [] { createForFriends("name").makePersistent(); });
    as(accounts::ben, [] { findForFriends("name").markForDeletion(); });
    asRootWithoutRights(sysv::useTheServiceForFriends);
    EXPECT_EQ(sysv::hiddenRecords().size(), 1U);
    as(accounts::anna, sysv::useTheServiceForFriends);
    EXPECT_EQ(sysv::segments().size(), 0U);
    EXPECT_EQ(sysv::hiddenRecords().size(), 0U);
}

TEST_F(SysVUsers, HaveSeparateSegmentsForEveryTrustee) {
    as(accounts::anna, [] {
        const SharedMemory own = create("name");
        const SharedMemory shared = createForFriends("name");
        const SharedMemory other = create("name", someSize, accounts::anna);
        EXPECT_TRUE(own.isCreator() && shared.isCreator() && other.isCreator());
        bytesOf(own)[0] = 1;
        bytesOf(shared)[0] = 2;
        bytesOf(other)[0] = 3;
        EXPECT_EQ(bytesOf(find("name"))[0], 1);
        EXPECT_EQ(bytesOf(findForFriends("name"))[0], 2);
        EXPECT_EQ(bytesOf(find("name", someSize, accounts::anna))[0], 3);
        EXPECT_EQ(sysv::segments().size(), 3U);
    });
}

class SysVEmptyTrustee : public sysv::SysVUsersTest {};

TEST_F(SysVEmptyTrustee, FindsThePrivateSegmentFirstAndThenThoseOfTheGroupsInOrderOfTheirNames) {
    as(accounts::anna, [] {
        SharedMemory shared = createForFriends("name");
        SharedMemory other = create("name", someSize, accounts::anna);
        SharedMemory own = create("name");
        EXPECT_EQ(find("name").getTrustee(), "");
        own = SharedMemory();
        EXPECT_EQ(find("name").getTrustee(), "anna");
        other = SharedMemory();
        const SharedMemory found = find("name");
        EXPECT_TRUE(found.isAttached());
        EXPECT_EQ(found.getTrustee(), "friends");
        EXPECT_TRUE(found.isStillNamed());
        shared = SharedMemory();
        EXPECT_FALSE(find("name").isAttached());
    });
}

TEST_F(SysVEmptyTrustee, FindsWhatAnotherMemberMadeForTheGroup) {
    Owner anna(accounts::anna, "name", accounts::friends);
    as(accounts::ben, [] {
        const SharedMemory found = find("name");
        EXPECT_EQ(found.getTrustee(), accounts::friends);
        EXPECT_EQ(bytesOf(found)[0], 7);
    });
    as(accounts::carl, [] { EXPECT_FALSE(find("name").isAttached()); });
    anna.end();
}

TEST_F(SysVEmptyTrustee, CreatesAPrivateSegmentWhateverTheGroupsHave) {
    Owner anna(accounts::anna, "name", accounts::friends);
    as(accounts::ben, [] {
        const SharedMemory own = create("name");
        EXPECT_TRUE(own.isCreator());
        EXPECT_EQ(own.getTrustee(), "");
        EXPECT_EQ(find("name").getTrustee(), "");
    });
    as(accounts::ben, [] { EXPECT_TRUE(sysv::createOrFind("name").isCreator()); });
    anna.end();
}

TEST_F(SysVEmptyTrustee, DoesNotTakeAGroupsSegmentForAPrivateOneThatIsTooSmall) {
    Owner anna(accounts::anna, "name", accounts::friends);
    as(accounts::ben, [] {
        const SharedMemory own = create("name", 1);
        EXPECT_EQ(find("name", 1).getTrustee(), "");
        EXPECT_FALSE(find("name", 2).isAttached());
    });
    anna.end();
}

TEST_F(SysVEmptyTrustee, FindsNoGroupsSegmentInPosixSharedMemory) {
    as(accounts::anna, [] {
        const SharedMemory shared = tests::create("name", someSize, accounts::friends);
        EXPECT_FALSE(tests::find("name").isAttached());
    });
}

} // namespace
