#include "foundation/os/AtomicFolder.h"
#include "foundation/os/FolderOpening.h"

#include "foundation/os/FileDescriptor.h"
#include "foundation/os/FileIdentity.h"
#include "tests/endpointregistry/FoldersRefusedCalls.h"
#include "tests/platform/AtomicFolderTools.h"

#include <cerrno>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <gtest/gtest.h>
#include <string>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/xattr.h>
#include <unistd.h>
#include <vector>

namespace {

namespace accounts = tests::accounts;
namespace fs = std::filesystem;
using foundation::os::FileDescriptor;
using foundation::os::identityAt;
using foundation::os::identityOf;
using foundation::os::openFolderBelow;
using foundation::os::openThroughNoLink;
using foundation::os::PathAt;

const std::vector<std::string> levels{"first", "second", "third"};

/// Folders below another, as a system that opens a whole path in one step sees them and one that
/// refuses to: none of the tests may tell the two apart.
class FoldersBelow : public tests::AtomicFoldersOfUsers {
protected:
    void SetUp() override {
        AtomicFoldersOfUsers::SetUp();
        if (!IsSkipped()) {
            fs::create_directories(pathOf(levels.size()));
        }
    }

    /// The path of the level of this number; of the topmost folder for 0.
    std::string pathOf(std::size_t number) const {
        std::string level = path;
        for (std::size_t i = 0; i < number; ++i) {
            level += "/" + levels[i];
        }
        return level;
    }

    /// Runs the body in a child on each of these systems, as root and as an ordinary user.
    template<typename Body>
    static void everywhere(Body body) {
        for (const int error : {0, ENOSYS, EPERM}) {
            for (const bool isOrdinary : {false, true}) {
                SCOPED_TRACE(error);
                EXPECT_EQ(tests::runInChild([&] {
                              if (isOrdinary) {
                                  accounts::become(accounts::anna);
                              }
                              if (error != 0) {
                                  tests::refuseCalls({SYS_openat2}, error);
                              }
                              body();
                          }),
                          0)
                    << (isOrdinary ? "as an ordinary user" : "as root");
            }
        }
    }

    static void expectOpen(const PathAt& top, const std::string& meant) {
        const FileDescriptor folder = openFolderBelow(top, levels);
        ASSERT_TRUE(folder) << errno;
        EXPECT_EQ(identityOf(folder.get()), identityAt(meant));
        EXPECT_EQ(::fcntl(folder.get(), F_GETFD), FD_CLOEXEC);
        EXPECT_EQ(::fcntl(folder.get(), F_GETFL) & O_PATH, 0) << "it can be read";
    }

    static void expectNone(const PathAt& top, int error) {
        errno = 0;
        EXPECT_FALSE(openFolderBelow(top, levels));
        EXPECT_EQ(errno, error);
    }
};

TEST_F(FoldersBelow, AreOpened) {
    everywhere([this] {
        expectOpen(path, pathOf(3));
        const FileDescriptor upper(::open(parent.c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC));
        expectOpen({upper.get(), "folder"}, pathOf(3));
    });
}

TEST_F(FoldersBelow, AreOpenedThroughALinkToTheUpperFolder) {
    fs::create_symlink(path, other);
    fs::create_symlink(parent, parent + "/up");
    everywhere([this] {
        expectOpen(other, pathOf(3));
        expectOpen(parent + "/up/folder", pathOf(3));
        expectOpen(parent + "/up/other", pathOf(3));
    });
}

TEST_F(FoldersBelow, AreNotOpenedThroughALinkOnTheWay) {
    for (std::size_t number = 1; number <= levels.size(); ++number) {
        const std::string level = pathOf(number);
        fs::rename(level, other);
        for (const std::string& target : {other, std::string("../other"), parent + "/nothing"}) {
            fs::create_symlink(target, level);
            everywhere([this] { expectNone(path, ENOTDIR); });
            fs::remove(level);
        }
        fs::rename(other, level);
    }
}

TEST_F(FoldersBelow, AreMissingWhereALevelIs) {
    for (std::size_t number = levels.size() + 1; number-- > 0;) {
        fs::remove(pathOf(number));
        everywhere([this] { expectNone(path, ENOENT); });
    }
}

TEST_F(FoldersBelow, AreNoFiles) {
    for (std::size_t number = levels.size() + 1; number-- > 0;) {
        fs::remove(pathOf(number));
        std::ofstream(pathOf(number)) << "no folder" << std::flush;
        everywhere([this] { expectNone(path, ENOTDIR); });
        fs::remove(pathOf(number));
    }
}

TEST_F(FoldersBelow, AreNoPipesThatOneWaitsFor) {
    fs::remove(pathOf(3));
    ASSERT_EQ(::mkfifo(pathOf(3).c_str(), 0666), 0);
    everywhere([this] { expectNone(path, ENOTDIR); });
}

TEST_F(FoldersBelow, AreClosedWhereALevelIs) {
    for (std::size_t number = 0; number <= levels.size(); ++number) {
        ASSERT_EQ(::chmod(pathOf(number).c_str(), 0700), 0);
        everywhere([this] {
            if (::geteuid() == 0) {
                expectOpen(path, pathOf(3));
            } else {
                expectNone(path, EACCES);
            }
        });
        ASSERT_EQ(::chmod(pathOf(number).c_str(), 0755), 0);
    }
}

TEST_F(FoldersBelow, AreOpenedThroughFoldersThatCanOnlyBePassed) {
    for (std::size_t number = 0; number < levels.size(); ++number) {
        ASSERT_EQ(::chmod(pathOf(number).c_str(), 0711), 0);
        everywhere([this] { expectOpen(path, pathOf(3)); });
        ASSERT_EQ(::chmod(pathOf(number).c_str(), 0755), 0);
    }
}

TEST_F(FoldersBelow, LeaveNoDescriptorBehind) {
    fs::create_symlink(path, other);
    fs::create_symlink("nowhere", path + "/dangling");
    everywhere([this] {
        const FileDescriptor before(::dup(0));
        const int next = FileDescriptor(::dup(0)).get();
        openFolderBelow(path, levels);
        openFolderBelow(other, levels);
        openFolderBelow(path, {"first", "missing", "third"});
        openFolderBelow(path, {"dangling", "second"});
        EXPECT_EQ(FileDescriptor(::dup(0)).get(), next);
    });
}

class OpeningThroughNoLink : public FoldersBelow {
protected:
    void SetUp() override {
        FoldersBelow::SetUp();
        if (!IsSkipped() && !openThroughNoLink(std::string("/"), O_RDONLY)) {
            GTEST_SKIP() << "this system opens no path so";
        }
    }
};

TEST_F(OpeningThroughNoLink, OpensFilesAndFolders) {
    const std::string file = pathOf(3) + "/file";
    std::ofstream(file) << "content" << std::flush;
    for (const std::string& meant : {file, pathOf(3), pathOf(1)}) {
        const FileDescriptor opened = openThroughNoLink(meant, O_RDONLY);
        ASSERT_TRUE(opened) << meant << errno;
        EXPECT_EQ(identityOf(opened.get()), identityAt(meant));
        EXPECT_EQ(::fcntl(opened.get(), F_GETFD), FD_CLOEXEC);
    }
    const FileDescriptor folder(::open(path.c_str(), O_PATH | O_CLOEXEC));
    EXPECT_EQ(identityOf(openThroughNoLink({folder.get(), "first/second"}, O_RDONLY).get()),
              identityAt(pathOf(2)));
    EXPECT_FALSE(openThroughNoLink(file, O_RDONLY | O_DIRECTORY));
    EXPECT_EQ(errno, ENOTDIR);
    EXPECT_FALSE(openThroughNoLink(pathOf(3) + "/missing", O_RDONLY));
    EXPECT_EQ(errno, ENOENT);
}

TEST_F(OpeningThroughNoLink, MeetsNoLinkAnywhere) {
    const std::string file = pathOf(3) + "/file";
    std::ofstream(file) << "content" << std::flush;
    fs::create_symlink("file", pathOf(3) + "/link");
    fs::create_symlink(path, other);
    fs::create_symlink("second", pathOf(1) + "/link");
    for (const std::string& way : {pathOf(3) + "/link", other, other + "/first/second/third/file",
                                   pathOf(1) + "/link/third/file"}) {
        EXPECT_FALSE(openThroughNoLink(way, O_RDONLY)) << way;
        EXPECT_EQ(errno, ELOOP) << way;
    }
}

TEST_F(OpeningThroughNoLink, IsRefusedAsTheSystemRefusesIt) {
    for (const int error : {ENOSYS, EPERM}) {
        EXPECT_EQ(tests::runInChild([&] {
                      tests::refuseCalls({SYS_openat2}, error);
                      EXPECT_FALSE(openThroughNoLink(path, O_RDONLY));
                      EXPECT_EQ(errno, error);
                  }),
                  0);
    }
}

TEST_F(FoldersBelow, CarryAnAccessControlListOrNone) {
    const FileDescriptor folder(::open(path.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    EXPECT_FALSE(foundation::os::carriesAccessControlList(folder.get()));
    // An attribute of another kind is none; not every file system has those.
    if (::fsetxattr(folder.get(), "trusted.other", "x", 1, 0) == 0) {
        EXPECT_FALSE(foundation::os::carriesAccessControlList(folder.get()));
    }
    EXPECT_TRUE(foundation::os::carriesAccessControlList(-1)) << "cannot be asked";
}

} // namespace
