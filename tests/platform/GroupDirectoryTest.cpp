#include "foundation/os/GroupDirectory.h"

#include "tests/platform/GroupDirectoryTools.h"

#include <array>
#include <cstdint>
#include <cstdlib>
#include <fcntl.h>
#include <filesystem>
#include <gtest/gtest.h>
#include <sched.h>
#include <string>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/xattr.h>
#include <unistd.h>

namespace {

namespace accounts = tests::accounts;
namespace fs = std::filesystem;
using foundation::os::GroupDirectoryPath;

/// A directory that belongs to a group, and what is none.
class GroupDirectories : public tests::GroupDirectoryTest {};

TEST_F(GroupDirectories, AreMadeByAnyMemberWithTheirFinalOwnerAndModeUnderAnyUmask) {
    for (const mode_t mask : {0000U, 0022U, 0077U}) {
        as(accounts::anna, [&] {
            ::umask(mask);
            const auto made = GroupDirectory::openOrCreate(path, group());
            struct stat status {};
            ASSERT_EQ(::fstat(made.get(), &status), 0);
            EXPECT_EQ(status.st_mode & 07777U, 0770U);
            EXPECT_EQ(status.st_gid, friends);
            EXPECT_EQ(status.st_uid, ::geteuid());
            EXPECT_EQ(::fcntl(made.get(), F_GETFD), FD_CLOEXEC);
        });
        for (const std::size_t level : {1U, 2U}) {
            struct stat status {};
            ASSERT_EQ(::stat(levelPath(level).c_str(), &status), 0);
            EXPECT_EQ(status.st_mode & 07777U, 0777U);
        }
        expectUsable();
        fs::remove_all(levelPath(1));
    }
}

TEST_F(GroupDirectories, ThatThereAreNoneOfAreNotMadeByALook) {
    EXPECT_FALSE(GroupDirectory::tryOpen(path, group()).has_value());
    EXPECT_TRUE(fs::is_empty(path.base));
    makeLevelsAbove();
    EXPECT_FALSE(GroupDirectory::tryOpen(path, group()).has_value());
    EXPECT_FALSE(GroupDirectory::tryOpen(path, {"no such group"}).has_value()) << "whatever group";
    EXPECT_FALSE(GroupDirectory::tryOpen({path.base + "/none", path.levels}, group()).has_value());
}

TEST_F(GroupDirectories, AreNotMadeForAGroupThatThereIsNone) {
    EXPECT_THROW(GroupDirectory::openOrCreate(path, {"no such group"}), GroupDirectoryError);
    EXPECT_TRUE(fs::is_empty(path.base));
}

TEST_F(GroupDirectories, AreNotMadeWithoutTheBase) {
    fs::remove(path.base);
    EXPECT_THROW(GroupDirectory::openOrCreate(path, group()), GroupDirectoryError);
    EXPECT_FALSE(fs::exists(path.base));
}

TEST_F(GroupDirectories, StayGoodWhoeverMadeThem) {
    makeLevelsAbove();
    constexpr uid_t deletedAccount = 61999;
    for (const uid_t maker : {accounts::userId(accounts::anna), accounts::userId(accounts::carl),
                              deletedAccount, uid_t{0}}) {
        SCOPED_TRACE(maker);
        makeOwn(maker, friends, 0770);
        expectUsable();
        fs::remove(own());
    }
}

TEST_F(GroupDirectories, NeedAllPermissionsOfTheGroupAndNoneToWriteForOthers) {
    makeLevelsAbove();
    makeOwn(accounts::userId(accounts::anna), friends, 0770);
    for (mode_t mode = 0; mode <= 07777U; ++mode) {
        ASSERT_EQ(::chmod(own().c_str(), mode), 0);
        const bool isExpected = (mode & 0070U) == 0070U && (mode & 0002U) == 0;
        ASSERT_EQ(isUsable(), isExpected) << mode;
    }
}

TEST_F(GroupDirectories, StayGoodWhenAnAdministratorLetsAllRead) {
    as(accounts::anna, [&] { GroupDirectory::openOrCreate(path, group()); });
    for (const std::string& where : {levelPath(1), levelPath(2), own()}) {
        fs::permissions(where,
                        fs::perms::owner_read | fs::perms::owner_exec | fs::perms::group_read |
                            fs::perms::group_exec | fs::perms::others_read | fs::perms::others_exec,
                        fs::perm_options::add); // chmod -R a+rX
    }
    expectUsable();
}

TEST_F(GroupDirectories, OfAnotherGroupAreRefused) {
    makeLevelsAbove();
    for (const std::string& other : {accounts::family, accounts::carl}) {
        makeOwn(accounts::userId(accounts::anna), accounts::groupId(other), 0770);
        expectRefused();
        fs::remove(own());
    }
}

TEST_F(GroupDirectories, OfAStrangerCannotBeMadeTheGroups) {
    makeLevelsAbove();
    as(accounts::carl, [&] {
        makeDirectory(own(), 0770);
        EXPECT_NE(::chown(own().c_str(), static_cast<uid_t>(-1), friends), 0);
        EXPECT_EQ(errno, EPERM);
    });
    expectRefused();
}

TEST_F(GroupDirectories, OfAStrangerAreNoneWhoseParentHandsDownAnotherGroup) {
    makeLevelsAbove(accounts::groupId(accounts::family), 02777);
    as(accounts::carl, [&] { makeDirectory(own(), 0770); });
    expectRefused();
    fs::remove(own());
    as(accounts::anna, [&] { GroupDirectory::openOrCreate(path, group()); });
    expectUsable();
}

TEST_F(GroupDirectories, BelowAParentOfTheGroupAreTheirOwnersToProve) {
    for (const mode_t mode : {02777U, 0777U}) {
        makeLevelsAbove(friends, mode);
        constexpr uid_t deletedAccount = 61999;
        const uid_t carl = accounts::userId(accounts::carl);
        for (const uid_t maker : {carl, deletedAccount}) {
            makeOwn(maker, friends, 0770);
            expectRefused();
            fs::remove(own());
        }
        for (const uid_t maker : {accounts::userId(accounts::anna), uid_t{0}}) {
            makeOwn(maker, friends, 0770);
            expectUsable();
            fs::remove(own());
        }
        fs::remove_all(levelPath(1));
    }
}

TEST_F(GroupDirectories, OfAStrangerWhoseParentHandsDownTheGroupAreRefused) {
    makeLevelsAbove(friends, 02777);
    as(accounts::carl, [&] {
        makeDirectory(own(), 0770);
        struct stat status {};
        ASSERT_EQ(::stat(own().c_str(), &status), 0);
        EXPECT_EQ(status.st_gid, friends) << "or this proves nothing";
    });
    expectRefused();
}

/// A file system that hands the group of every directory down, as it was mounted.
class GroupDirectoriesOnOtherMounts : public GroupDirectories {
protected:
    /// Mounts an image on the base in the calling child; false where the system does not allow it.
    bool mountHandingDown() const {
        const std::string image = "/dev/shm/image";
        const std::string command = "exec 2>/dev/null; truncate -s 4M '" + image +
                                    "' && mkfs.ext4 -q '" + image + "' && mount -o loop,grpid '" +
                                    image + "' '" + path.base + "'";
        const bool isMounted = ::unshare(CLONE_NEWNS) == 0 &&
                               // NOLINTNEXTLINE(cert-env33-c,concurrency-mt-unsafe): of constants
                               std::system(command.c_str()) == 0;
        fs::remove(image);
        return isMounted;
    }
};

TEST_F(GroupDirectoriesOnOtherMounts, OfAStrangerAreRefusedWhereTheMountHandsDownTheGroup) {
    constexpr int cannotMount = 77;
    const int status = tests::runInChild([&] {
        if (!mountHandingDown()) {
            ::_exit(cannotMount);
        }
        demand(::chmod(path.base.c_str(), 0777) == 0);
        demand(::chown(path.base.c_str(), 0, friends) == 0);
        as(accounts::carl, [&] {
            for (const std::size_t level : {1U, 2U}) {
                makeDirectory(levelPath(level), 0777);
            }
            makeDirectory(own(), 0770);
            struct stat made {};
            ASSERT_EQ(::stat(own().c_str(), &made), 0);
            EXPECT_EQ(made.st_gid, friends) << "or this proves nothing";
        });
        expectRefused();
        fs::remove(own());
        as(accounts::anna, [&] { GroupDirectory::openOrCreate(path, group()); });
        expectUsable();
    });
    if (status == cannotMount) {
        GTEST_SKIP() << "needs to mount an image";
    }
    EXPECT_EQ(status, 0);
}

TEST_F(GroupDirectories, ThatCarryAnAccessControlListAreRefused) {
    struct Entry {
        std::uint16_t tag;
        std::uint16_t permissions;
        std::uint32_t id;
    };
    struct {
        std::uint32_t version = 2;
        std::array<Entry, 5> entries{{{0x01, 7, UINT32_MAX},
                                      {0x02, 7, 60803}, // carl
                                      {0x04, 7, UINT32_MAX},
                                      {0x10, 7, UINT32_MAX},
                                      {0x20, 0, UINT32_MAX}}};
    } const list;
    makeLevelsAbove();
    for (const char* const kind : {"system.posix_acl_access", "system.posix_acl_default"}) {
        makeOwn(accounts::userId(accounts::anna), friends, 0770);
        if (::setxattr(own().c_str(), kind, &list, sizeof list, 0) != 0) {
            GTEST_SKIP() << "needs a file system with access control lists";
        }
        ASSERT_EQ(::chmod(own().c_str(), 0770), 0);
        expectRefused();
        fs::remove(own());
    }
    ASSERT_EQ(::setxattr(levelPath(2).c_str(), "system.posix_acl_default", &list, sizeof list, 0),
              0);
    as(accounts::anna, [&] { GroupDirectory::openOrCreate(path, group()); });
    expectUsable();
}

TEST_F(GroupDirectories, AreNotReachedThroughLinksBelowTheBase) {
    as(accounts::anna, [&] { GroupDirectory::openOrCreate(path, group()); });
    for (std::size_t level = 1; level <= 3; ++level) {
        const std::string moved = path.base + "/moved";
        fs::rename(levelPath(level), moved);
        for (const std::string& target : {moved, path.base + "/nothing"}) {
            fs::create_symlink(target, levelPath(level));
            as(accounts::ben, [&] {
                EXPECT_THROW(GroupDirectory::tryOpen(path, group()), GroupDirectoryError);
                EXPECT_THROW(GroupDirectory::openOrCreate(path, group()), GroupDirectoryError);
            });
            fs::remove(levelPath(level));
        }
        fs::rename(moved, levelPath(level));
    }
    expectUsable();
}

TEST_F(GroupDirectories, MayLieBelowALinkOfTheAdministrators) {
    const std::string link = "/dev/shm/link to group directories";
    fs::create_symlink(path.base, link);
    const GroupDirectoryPath other{link, path.levels};
    as(accounts::anna, [&] {
        EXPECT_FALSE(GroupDirectory::tryOpen(other, group()).has_value());
        const auto made = GroupDirectory::openOrCreate(other, group());
        EXPECT_EQ(GroupDirectory::tryOpen(other, group())->identity(), made.identity());
        EXPECT_EQ(GroupDirectory::tryOpen(path, group())->identity(), made.identity());
    });
    fs::remove(link);
}

TEST_F(GroupDirectories, InWhosePlaceSomethingElseIsAreRefused) {
    makeLevelsAbove();
    ASSERT_EQ(::mkfifo(own().c_str(), 0666), 0);
    expectRefused();
    fs::remove(own());
    ASSERT_EQ(::mknod(own().c_str(), S_IFREG | 0666, 0), 0);
    expectRefused();
    fs::remove(own());
}

TEST_F(GroupDirectories, SayWhatFailedAndWhere) {
    makeLevelsAbove();
    as(accounts::carl, [&] { makeDirectory(own(), 0777); });
    try {
        GroupDirectory::tryOpen(path, group());
        ADD_FAILURE();
    } catch (const GroupDirectoryError& error) {
        EXPECT_EQ(error.step(), GroupDirectoryError::Step::examine);
        EXPECT_EQ(error.error(), EPERM);
        EXPECT_EQ(std::string(error.what()),
                  "The directory does not belong to its group: <" + path.text() + ">");
    }
    EXPECT_EQ(path.text(), own() + "/");
}

} // namespace
