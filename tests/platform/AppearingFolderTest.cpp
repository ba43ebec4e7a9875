#include "foundation/os/AppearingFolder.h"

#include "foundation/os/FileDescriptor.h"
#include "foundation/os/FileIdentity.h"
#include "tests/support/ForkedProcess.h"
#include "tests/support/TestAccounts.h"
#include "tests/support/TracedProcess.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdint>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <gtest/gtest.h>
#include <iomanip>
#include <stdexcept>
#include <string>
#include <sys/stat.h>
#include <sys/xattr.h>
#include <unistd.h>
#include <vector>

namespace {

namespace accounts = tests::accounts;
namespace fs = std::filesystem;
using foundation::os::carriesAccessControlList;
using foundation::os::createAppearingFolder;
using foundation::os::FileDescriptor;
using foundation::os::FilePlace;
using foundation::os::identityAt;
using tests::TracedProcess;

constexpr mode_t permissionBits = 07777;
using Names = std::vector<std::string>;

struct stat statusOf(const std::string& path) {
    struct stat status {};
    EXPECT_EQ(::lstat(path.c_str(), &status), 0) << path;
    return status;
}

/// The folders of this test, in one of their own that everybody may write to.
class AppearingFolders : public testing::Test {
protected:
    void SetUp() override {
        fs::create_directory(parent);
        ASSERT_EQ(::chmod(parent.c_str(), 0777), 0);
    }
    void TearDown() override { fs::remove_all(parent); }

    Names names() const {
        Names found;
        for (const auto& entry : fs::directory_iterator(parent)) {
            found.push_back(entry.path().filename());
        }
        std::ranges::sort(found);
        return found;
    }

    // NOLINTBEGIN(cppcoreguidelines-non-private-member-variables-in-classes): a fixture
    const std::string parent = "/dev/shm/appearing folders";
    const std::string path = parent + "/folder";
    const std::string other = parent + "/other";
    // NOLINTEND(cppcoreguidelines-non-private-member-variables-in-classes)
};

TEST_F(AppearingFolders, HaveExactlyTheirModeUnderAnyUmask) {
    for (const mode_t mode : {0700U, 0770U, 0777U, 01777U, 02770U, 0550U}) {
        for (const mode_t mask : {0000U, 0022U, 0027U, 0077U}) {
            EXPECT_EQ(tests::runInChild([&] {
                          ::umask(mask);
                          EXPECT_EQ(createAppearingFolder(path, mode, std::nullopt), 0);
                          EXPECT_EQ(::umask(0), mask);
                      }),
                      0);
            EXPECT_EQ(statusOf(path).st_mode, S_IFDIR | mode)
                << std::oct << mode << " under " << mask;
            EXPECT_EQ(statusOf(path).st_uid, ::geteuid());
            EXPECT_EQ(names(), Names{"folder"});
            fs::remove(path);
        }
    }
}

TEST_F(AppearingFolders, HaveExactlyTheirModeWhateverTheirParentHandsDown) {
    ASSERT_EQ(::chmod(parent.c_str(), 02777), 0);
    EXPECT_EQ(createAppearingFolder(path, 0750, std::nullopt), 0);
    EXPECT_EQ(statusOf(path).st_mode & permissionBits, 0750U);
}

TEST_F(AppearingFolders, AreMadeBesideAFolderThatIsHeldOpen) {
    const FileDescriptor folder(::open(parent.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    EXPECT_EQ(createAppearingFolder(FilePlace(folder.get(), "folder"), 0700, std::nullopt), 0);
    EXPECT_EQ(names(), Names{"folder"});
    EXPECT_EQ(createAppearingFolder(FilePlace(folder.get(), "folder"), 0700, std::nullopt), EEXIST);
    EXPECT_EQ(createAppearingFolder(FilePlace(folder.get(), "folder/inner"), 0700, std::nullopt),
              0);
    EXPECT_TRUE(fs::is_directory(path + "/inner"));
}

TEST_F(AppearingFolders, LeaveAFolderOfTheirNameAlone) {
    ASSERT_EQ(::mkdir(path.c_str(), 0710), 0);
    const auto before = identityAt(path);
    for (const bool isEmpty : {true, false}) {
        if (!isEmpty) {
            std::ofstream(path + "/file") << "content";
        }
        EXPECT_EQ(createAppearingFolder(path, 0777, ::getegid()), EEXIST);
        EXPECT_EQ(identityAt(path), before);
        EXPECT_EQ(statusOf(path).st_mode & permissionBits, 0710U);
        EXPECT_EQ(fs::is_empty(path), isEmpty);
        EXPECT_EQ(names(), Names{"folder"});
    }
}

TEST_F(AppearingFolders, LeaveAFileOfTheirNameAlone) {
    std::ofstream(path) << "content";
    const auto before = identityAt(path);
    EXPECT_EQ(createAppearingFolder(path, 0777, std::nullopt), EEXIST);
    EXPECT_EQ(identityAt(path), before);
    EXPECT_EQ(fs::file_size(path), 7U);
    EXPECT_EQ(names(), Names{"folder"});
}

TEST_F(AppearingFolders, LeaveALinkOfTheirNameAlone) {
    for (const bool leadsSomewhere : {false, true}) {
        if (leadsSomewhere) {
            ASSERT_EQ(::mkdir(other.c_str(), 0700), 0);
        }
        fs::create_symlink(other, path);
        EXPECT_EQ(createAppearingFolder(path, 0777, std::nullopt), EEXIST);
        EXPECT_EQ(fs::read_symlink(path), other);
        EXPECT_EQ(fs::exists(other), leadsSomewhere);
        if (leadsSomewhere) {
            EXPECT_EQ(statusOf(other).st_mode & permissionBits, 0700U);
        }
        fs::remove(path);
    }
}

TEST_F(AppearingFolders, NeedTheirParent) {
    EXPECT_EQ(createAppearingFolder(path + "/inner", 0700, std::nullopt), ENOENT);
    std::ofstream(other) << "no folder";
    EXPECT_EQ(createAppearingFolder(other + "/inner", 0700, std::nullopt), ENOTDIR);
    EXPECT_EQ(names(), Names{"other"});
}

/// The tests that act as several users.
class AppearingFoldersOfUsers : public AppearingFolders {
protected:
    void SetUp() override {
        if (!accounts::available()) {
            GTEST_SKIP() << accounts::whyNot;
        }
        AppearingFolders::SetUp();
    }

    static void as(const std::string& user, const std::function<void()>& body) {
        EXPECT_EQ(tests::runInChild([&] {
                      accounts::become(user);
                      body();
                  }),
                  0)
            << user;
    }
};

TEST_F(AppearingFoldersOfUsers, BelongToTheirGroup) {
    const gid_t friends = accounts::groupId(accounts::friends);
    for (const mode_t mode : {0770U, 02770U, 0750U}) {
        as(accounts::anna, [&] {
            ::umask(0077);
            EXPECT_EQ(createAppearingFolder(path, mode, friends), 0);
        });
        EXPECT_EQ(statusOf(path).st_mode & permissionBits, mode) << std::oct << mode;
        EXPECT_EQ(statusOf(path).st_gid, friends);
        EXPECT_EQ(statusOf(path).st_uid, accounts::userId(accounts::anna));
        fs::remove(path);
    }
}

TEST_F(AppearingFoldersOfUsers, DoNotAppearForAGroupThatTheirMakerIsNotIn) {
    const gid_t friends = accounts::groupId(accounts::friends);
    as(accounts::carl, [&] { EXPECT_EQ(createAppearingFolder(path, 0770, friends), EPERM); });
    EXPECT_EQ(names(), Names());
}

TEST_F(AppearingFoldersOfUsers, DoNotAppearWhereTheirMakerMayNotWrite) {
    ASSERT_EQ(::chmod(parent.c_str(), 0755), 0);
    as(accounts::carl, [&] { EXPECT_EQ(createAppearingFolder(path, 0700, std::nullopt), EACCES); });
    EXPECT_EQ(names(), Names());
}

/// Kills a maker of the folder at each of its steps, and calls `check` after each. Gives up when a
/// check has failed.
void killMakerAtEveryStep(const std::function<void()>& make, const std::function<void()>& check) {
    int step = 0;
    for (bool wasKilled = true; wasKilled && !testing::Test::HasFailure(); ++step) {
        SCOPED_TRACE("killed at step " + std::to_string(step));
        {
            TracedProcess maker(make);
            wasKilled = maker.run(step);
        }
        check();
    }
    EXPECT_GT(step, 5);
}

TEST_F(AppearingFoldersOfUsers, AreThereOrNotWheneverTheirMakerIsKilled) {
    const gid_t friends = accounts::groupId(accounts::friends);
    const auto make = [&] {
        ::umask(0077);
        if (createAppearingFolder(path, 02770, friends) != 0) {
            throw std::runtime_error("The folder was not made.");
        }
    };
    killMakerAtEveryStep(make, [&] {
        if (fs::exists(path)) {
            EXPECT_EQ(statusOf(path).st_mode & permissionBits, 02770U);
            EXPECT_EQ(statusOf(path).st_gid, friends);
            EXPECT_EQ(names(), Names{"folder"});
        } else {
            EXPECT_LE(names().size(), 1U);
            EXPECT_EQ(createAppearingFolder(path, 0700, std::nullopt), 0);
            EXPECT_EQ(names(), Names{"folder"}) << "the next maker tidies up";
        }
        fs::remove(path);
    });
}

TEST_F(AppearingFolders, LeaveNoTraceOfMakersThatWereKilledOnceAnotherOneIsMade) {
    const auto make = [&] { createAppearingFolder(path, 0700, std::nullopt); };
    killMakerAtEveryStep(make, [&] {
        EXPECT_EQ(createAppearingFolder(other, 0700, std::nullopt), 0);
        EXPECT_EQ(names(), fs::exists(path) ? Names({"folder", "other"}) : Names({"other"}));
        fs::remove(path);
        fs::remove(other);
    });
}

TEST_F(AppearingFolders, AppearAlthoughOtherMakersTidyUpMeanwhile) {
    int step = 0;
    for (bool isOnTheWay = true; isOnTheWay; ++step) {
        SCOPED_TRACE("stopped at step " + std::to_string(step));
        TracedProcess maker([&] {
            if (createAppearingFolder(path, 0700, std::nullopt) != 0) {
                throw std::runtime_error("The folder was not made.");
            }
        });
        isOnTheWay = maker.run(step);
        EXPECT_EQ(createAppearingFolder(other, 0700, std::nullopt), 0);
        if (isOnTheWay) {
            constexpr int untilTheEnd = 1'000'000;
            ASSERT_FALSE(maker.run(untilTheEnd));
        }
        EXPECT_EQ(names(), Names({"folder", "other"}));
        fs::remove(path);
        fs::remove(other);
        ASSERT_FALSE(HasFailure());
    }
    EXPECT_GT(step, 5);
}

TEST_F(AppearingFolders, AreTheFirstMakersWhenAnotherOneComesMeanwhile) {
    int step = 0;
    for (bool isOnTheWay = true; isOnTheWay; ++step) {
        SCOPED_TRACE("stopped at step " + std::to_string(step));
        TracedProcess maker([&] {
            const int error = createAppearingFolder(path, 0700, std::nullopt);
            if (error != 0 && error != EEXIST) {
                throw std::runtime_error("The folder was not made.");
            }
        });
        isOnTheWay = maker.run(step);
        const bool wasThere = fs::exists(path);
        EXPECT_EQ(createAppearingFolder(path, 0770, std::nullopt), wasThere ? EEXIST : 0);
        const auto first = identityAt(path);
        if (isOnTheWay) {
            constexpr int untilTheEnd = 1'000'000;
            ASSERT_FALSE(maker.run(untilTheEnd));
        }
        EXPECT_EQ(identityAt(path), first);
        EXPECT_EQ(statusOf(path).st_mode & permissionBits, wasThere ? 0700U : 0770U);
        EXPECT_EQ(names(), Names{"folder"});
        fs::remove(path);
        ASSERT_FALSE(HasFailure());
    }
}

/// An access control list of one user beside the owner, as the kernel stores it.
struct AccessControlList {
    struct Entry {
        std::uint16_t tag;
        std::uint16_t permissions;
        std::uint32_t id;
    };
    std::uint32_t version = 2;
    std::array<Entry, 5> entries{{
        {0x01, 7, UINT32_MAX},
        {0x02, 7, 60803},
        {0x04, 7, UINT32_MAX},
        {0x10, 7, UINT32_MAX},
        {0x20, 7, UINT32_MAX},
    }};
};
constexpr const char* const handedDown = "system.posix_acl_default";
constexpr const char* const ownList = "system.posix_acl_access";

class AppearingFoldersWithLists : public AppearingFolders {
protected:
    void SetUp() override {
        AppearingFolders::SetUp();
        if (!setList(parent, handedDown)) {
            GTEST_SKIP() << "needs a file system with access control lists";
        }
    }

    static bool setList(const std::string& folder, const char* kind) {
        const AccessControlList list;
        return ::setxattr(folder.c_str(), kind, &list, sizeof list, 0) == 0;
    }

    static bool hasList(const std::string& folder) {
        const FileDescriptor open(::open(folder.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
        return carriesAccessControlList(open.get());
    }
};

TEST_F(AppearingFoldersWithLists, InheritNone) {
    // What the system's own call makes here inherits the list.
    ASSERT_EQ(::mkdir(other.c_str(), 0700), 0);
    ASSERT_GT(::getxattr(other.c_str(), ownList, nullptr, 0), 0);
    for (const mode_t mode : {0700U, 0770U, 02775U}) {
        EXPECT_EQ(createAppearingFolder(path, mode, ::getegid()), 0);
        for (const char* const kind : {handedDown, ownList}) {
            EXPECT_EQ(::getxattr(path.c_str(), kind, nullptr, 0), -1);
            EXPECT_EQ(errno, ENODATA);
        }
        EXPECT_EQ(statusOf(path).st_mode & permissionBits, mode);
        EXPECT_FALSE(hasList(path));
        fs::remove(path);
    }
}

TEST_F(AppearingFoldersWithLists, AreToldFromThoseThatCarryOne) {
    ASSERT_EQ(::mkdir(other.c_str(), 0700), 0);
    EXPECT_TRUE(hasList(other)) << "both kinds";
    EXPECT_TRUE(hasList(parent)) << "one that is handed down only";
    ASSERT_EQ(createAppearingFolder(path, 0700, std::nullopt), 0);
    ASSERT_TRUE(setList(path, ownList));
    EXPECT_TRUE(hasList(path)) << "one of its own only";
    EXPECT_TRUE(carriesAccessControlList(-1)) << "cannot be asked about";
}

} // namespace
