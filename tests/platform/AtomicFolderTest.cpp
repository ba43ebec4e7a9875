#include "foundation/os/AtomicFolder.h"

#include "foundation/os/FileDescriptor.h"
#include "foundation/os/FileIdentity.h"
#include "tests/endpointregistry/FoldersRefusedCalls.h"
#include "tests/platform/AtomicFolderTools.h"

#include <cerrno>
#include <fcntl.h>
#include <fstream>
#include <gtest/gtest.h>
#include <iomanip>
#include <optional>
#include <seccomp.h>
#include <unistd.h>

namespace {

namespace accounts = tests::accounts;
namespace fs = std::filesystem;
using foundation::os::createFolderAtomically;
using foundation::os::FileDescriptor;
using foundation::os::identityAt;
using foundation::os::PathAt;
using tests::AtomicFolders;
using tests::AtomicFoldersOfUsers;
using Names = std::vector<std::string>;

TEST_F(AtomicFolders, AreAnErrorWhereNothingCanBeLocked) {
    EXPECT_EQ(tests::runInChild([&] {
                  tests::refuseCalls({SCMP_SYS(flock)}, ENOLCK);
                  EXPECT_EQ(createFolderAtomically(path, 0700, std::nullopt), ENOLCK);
              }),
              0);
    EXPECT_EQ(names(), Names());
}

TEST_F(AtomicFolders, HaveExactlyTheirModeUnderAnyUmask) {
    for (const mode_t mode : {0700U, 0770U, 0777U, 01777U, 02770U, 0550U}) {
        for (const mode_t mask : {0000U, 0022U, 0027U, 0077U}) {
            EXPECT_EQ(tests::runInChild([&] {
                          ::umask(mask);
                          EXPECT_EQ(createFolderAtomically(path, mode, std::nullopt), 0);
                          EXPECT_EQ(::umask(0), mask);
                      }),
                      0);
            EXPECT_EQ(tests::statusOfFolder(path).st_mode, S_IFDIR | mode)
                << std::oct << mode << " under " << mask;
            EXPECT_EQ(tests::statusOfFolder(path).st_uid, ::geteuid());
            EXPECT_EQ(names(), Names{"folder"});
            fs::remove(path);
        }
    }
}

TEST_F(AtomicFolders, HaveExactlyTheirModeWhateverTheirParentHandsDown) {
    ASSERT_EQ(::chmod(parent.c_str(), 02777), 0);
    EXPECT_EQ(createFolderAtomically(path, 0750, std::nullopt), 0);
    EXPECT_EQ(tests::permissionsOf(path), 0750U);
}

TEST_F(AtomicFolders, AreMadeBesideAFolderThatIsHeldOpen) {
    const FileDescriptor folder(::open(parent.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    EXPECT_EQ(createFolderAtomically(PathAt(folder.get(), "folder"), 0700, std::nullopt), 0);
    EXPECT_EQ(names(), Names{"folder"});
    EXPECT_EQ(createFolderAtomically(PathAt(folder.get(), "folder"), 0700, std::nullopt), EEXIST);
    EXPECT_EQ(createFolderAtomically(PathAt(folder.get(), "folder/inner"), 0700, std::nullopt), 0);
    EXPECT_TRUE(fs::is_directory(path + "/inner"));
}

TEST_F(AtomicFolders, LeaveAFolderOfTheirNameAlone) {
    ASSERT_EQ(::mkdir(path.c_str(), 0710), 0);
    const auto before = identityAt(path);
    for (const bool isEmpty : {true, false}) {
        if (!isEmpty) {
            std::ofstream(path + "/file") << "content";
        }
        EXPECT_EQ(createFolderAtomically(path, 0777, ::getegid()), EEXIST);
        EXPECT_EQ(identityAt(path), before);
        EXPECT_EQ(tests::permissionsOf(path), 0710U);
        EXPECT_EQ(fs::is_empty(path), isEmpty);
        EXPECT_EQ(names(), Names{"folder"});
    }
}

TEST_F(AtomicFolders, LeaveAFileOfTheirNameAlone) {
    std::ofstream(path) << "content";
    const auto before = identityAt(path);
    EXPECT_EQ(createFolderAtomically(path, 0777, std::nullopt), EEXIST);
    EXPECT_EQ(identityAt(path), before);
    EXPECT_EQ(fs::file_size(path), 7U);
    EXPECT_EQ(names(), Names{"folder"});
}

TEST_F(AtomicFolders, LeaveALinkOfTheirNameAlone) {
    for (const bool leadsSomewhere : {false, true}) {
        if (leadsSomewhere) {
            ASSERT_EQ(::mkdir(other.c_str(), 0700), 0);
        }
        fs::create_symlink(other, path);
        EXPECT_EQ(createFolderAtomically(path, 0777, std::nullopt), EEXIST);
        EXPECT_EQ(fs::read_symlink(path), other);
        EXPECT_EQ(fs::exists(other), leadsSomewhere);
        if (leadsSomewhere) {
            EXPECT_EQ(tests::permissionsOf(other), 0700U);
        }
        fs::remove(path);
    }
}

TEST_F(AtomicFolders, NeedTheirParent) {
    EXPECT_EQ(createFolderAtomically(path + "/inner", 0700, std::nullopt), ENOENT);
    std::ofstream(other) << "no folder";
    EXPECT_EQ(createFolderAtomically(other + "/inner", 0700, std::nullopt), ENOTDIR);
    EXPECT_EQ(names(), Names{"other"});
}

TEST_F(AtomicFoldersOfUsers, BelongToTheirGroup) {
    const gid_t friends = accounts::groupId(accounts::friends);
    for (const mode_t mode : {0770U, 02770U, 0750U}) {
        as(accounts::anna, [&] {
            ::umask(0077);
            EXPECT_EQ(createFolderAtomically(path, mode, friends), 0);
        });
        EXPECT_EQ(tests::permissionsOf(path), mode) << std::oct << mode;
        EXPECT_EQ(tests::statusOfFolder(path).st_gid, friends);
        EXPECT_EQ(tests::statusOfFolder(path).st_uid, accounts::userId(accounts::anna));
        fs::remove(path);
    }
}

TEST_F(AtomicFoldersOfUsers, DoNotAppearForAGroupThatTheirMakerIsNotIn) {
    const gid_t friends = accounts::groupId(accounts::friends);
    as(accounts::carl, [&] { EXPECT_EQ(createFolderAtomically(path, 0770, friends), EPERM); });
    EXPECT_EQ(names(), Names());
}

TEST_F(AtomicFoldersOfUsers, DoNotAppearWhereTheirMakerMayNotWrite) {
    ASSERT_EQ(::chmod(parent.c_str(), 0755), 0);
    as(accounts::carl,
       [&] { EXPECT_EQ(createFolderAtomically(path, 0700, std::nullopt), EACCES); });
    EXPECT_EQ(names(), Names());
}

} // namespace
