#include "foundation/os/GroupDirectory.h"

#include "tests/platform/GroupDirectoryTools.h"

#include <cerrno>
#include <filesystem>
#include <functional>
#include <gtest/gtest.h>
#include <list>
#include <sched.h>
#include <string>
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>

namespace {

namespace accounts = tests::accounts;
namespace fs = std::filesystem;

/// What decides is the rights of a process, and not what the user database says of its user.
class GroupDirectoryProcesses : public tests::GroupDirectoryTest {
protected:
    void SetUp() override {
        GroupDirectoryTest::SetUp();
        if (!IsSkipped()) {
            carl = accounts::userId(accounts::carl);
            carlsOwn = accounts::groupId(accounts::carl);
        }
    }

    /// Runs the body where neither users nor groups can be looked up any more.
    static void withoutDatabase(const std::function<void()>& body) {
        EXPECT_EQ(tests::runInChild([&] {
                      demand(::unshare(CLONE_NEWNS) == 0);
                      for (const char* const file : {"/etc/passwd", "/etc/group"}) {
                          // A directory is no database that can be read.
                          demand(::umount2(file, MNT_DETACH) == 0);
                          demand(::mount("/dev/null", file, nullptr, MS_BIND, nullptr) == 0);
                      }
                      body();
                  }),
                  0);
    }

    uid_t carl = 0;
    gid_t carlsOwn = 0;
};

TEST_F(GroupDirectoryProcesses, WithTheGroupAsASupplementaryOneMakeAndUseIt) {
    asProcess(carl, carlsOwn, friends, [&] {
        const auto made = GroupDirectory::openOrCreate(path, group());
        EXPECT_EQ(GroupDirectory::tryOpen(path, group())->identity(), made.identity());
    });
    expectUsable();
}

TEST_F(GroupDirectoryProcesses, WithTheGroupAsTheEffectiveOneMakeAndUseIt) {
    asProcess(carl, friends, carlsOwn, [&] {
        const auto made = GroupDirectory::openOrCreate(path, group());
        EXPECT_EQ(GroupDirectory::tryOpen(path, group())->identity(), made.identity());
    });
    expectUsable();
    for (const std::size_t level : {1U, 2U}) {
        struct stat status {};
        ASSERT_EQ(::stat(levelPath(level).c_str(), &status), 0);
        EXPECT_EQ(status.st_gid, carlsOwn) << "or the database would decide below it for good";
    }
}

TEST_F(GroupDirectoryProcesses, WithNoOtherGroupMakeItWhereTheLevelsAboveAreThere) {
    makeLevelsAbove();
    asProcess(carl, friends, {}, [&] { GroupDirectory::openOrCreate(path, group()); });
    expectUsable();
}

TEST_F(GroupDirectoryProcesses, OfAMemberWithoutTheGroupNeitherMakeNorUseIt) {
    makeLevelsAbove();
    const uid_t anna = accounts::userId(accounts::anna);
    const gid_t annasOwn = accounts::groupId(accounts::anna);
    asProcess(anna, annasOwn, {}, [&] {
        EXPECT_FALSE(GroupDirectory::tryOpen(path, group()).has_value());
        EXPECT_THROW(GroupDirectory::openOrCreate(path, group()), GroupDirectoryError);
    });
    EXPECT_TRUE(fs::is_empty(levelPath(2)));
    makeOwn(0, friends, 0770);
    asProcess(anna, annasOwn, {}, [&] {
        EXPECT_THROW(GroupDirectory::tryOpen(path, group()), GroupDirectoryError);
        EXPECT_THROW(GroupDirectory::openOrCreate(path, group()), GroupDirectoryError);
    });
}

TEST_F(GroupDirectoryProcesses, OfStrangersNeitherMakeNorUseIt) {
    makeLevelsAbove();
    as(accounts::carl,
       [&] { EXPECT_THROW(GroupDirectory::openOrCreate(path, group()), GroupDirectoryError); });
    EXPECT_TRUE(fs::is_empty(levelPath(2)));
    makeOwn(0, friends, 0770);
    as(accounts::carl,
       [&] { EXPECT_THROW(GroupDirectory::tryOpen(path, group()), GroupDirectoryError); });
}

TEST_F(GroupDirectoryProcesses, OutsideTheDatabaseMakeNoneBelowAParentOfTheGroup) {
    makeLevelsAbove(friends);
    asProcess(carl, carlsOwn, friends, [&] {
        EXPECT_THROW(GroupDirectory::openOrCreate(path, group()), GroupDirectoryError);
    });
    EXPECT_TRUE(fs::is_empty(levelPath(2))) << "the others would not use it";
    as(accounts::anna, [&] { GroupDirectory::openOrCreate(path, group()); });
    expectUsable();
    asProcess(carl, carlsOwn, friends,
              [&] { EXPECT_TRUE(GroupDirectory::tryOpen(path, group()).has_value()); });
}

TEST_F(GroupDirectoryProcesses, NeedNoUserDatabase) {
    const Group known = group();
    ASSERT_EQ(known.id(), friends);
    makeLevelsAbove();
    withoutDatabase([&] {
        ASSERT_EQ(::setgroups(1, &friends), 0);
        ASSERT_EQ(::setgid(carlsOwn), 0);
        ASSERT_EQ(::setuid(carl), 0);
        const auto made = GroupDirectory::openOrCreate(path, known);
        EXPECT_EQ(GroupDirectory::tryOpen(path, known)->identity(), made.identity());
    });
    expectUsable();
}

TEST_F(GroupDirectoryProcesses, BelowAParentOfTheGroupNeedTheUserDatabase) {
    const Group known = group();
    ASSERT_EQ(known.id(), friends);
    makeLevelsAbove(friends);
    makeOwn(accounts::userId(accounts::anna), friends, 0770);
    withoutDatabase(
        [&] { EXPECT_THROW(GroupDirectory::tryOpen(path, known), GroupDirectoryError); });
    expectUsable();
}

TEST_F(GroupDirectoryProcesses, ThatRaceToMakeItComeToTheSame) {
    constexpr int rounds = 20;
    constexpr int count = 4;
    for (int round = 0; round < rounds; ++round) {
        std::list<tests::ForkedProcess> makers;
        for (int i = 0; i < count; ++i) {
            makers.emplace_back([&, i](tests::Channel& channel) {
                accounts::become(i % 2 == 0 ? accounts::anna : accounts::ben);
                channel.receive();
                const auto identity = GroupDirectory::openOrCreate(path, group()).identity();
                channel.send(std::to_string(identity.inode));
            });
        }
        for (auto& maker : makers) {
            maker.channel().send("go");
        }
        struct stat status {};
        for (auto& maker : makers) {
            const std::string inode = maker.channel().receive();
            ASSERT_EQ(::stat(own().c_str(), &status), 0);
            EXPECT_EQ(inode, std::to_string(status.st_ino));
            EXPECT_EQ(maker.waitForExit(), 0);
        }
        fs::remove_all(levelPath(1));
    }
}

} // namespace
