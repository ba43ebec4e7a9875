#include "endpointregistry/Folders.h"

#include "tests/endpointregistry/FoldersTools.h"
#include "tests/endpointregistry/LoggersReportedFailure.h"
#include "tests/support/ForkedProcess.h"
#include "tests/support/TestAccounts.h"

#include <cerrno>
#include <fstream>
#include <gtest/gtest.h>
#include <memory>
#include <stdexcept>
#include <string>
#include <sys/stat.h>
#include <system_error>
#include <unistd.h>
#include <vector>

using namespace agent::spf::endpointregistry;
namespace accounts = tests::accounts;

namespace {

const std::string inconsistency = "Endpoint Registry Error: File system inconsistency";

std::string notCreated(const std::string& path, int error) {
    return "Utils::createFolder(): Failed to create the directory: <" + path + ">. (Error " +
           std::to_string(error) + ")";
}

/// A tree in which a child finds no "/home", unless the test makes one.
class UsersPathInAnotherRoot : public testing::Test {
protected:
    void SetUp() override {
        if (!accounts::available()) {
            GTEST_SKIP() << accounts::whyNot;
        }
    }

    void enter() const {
        if (::chroot(root.path().c_str()) != 0 || ::chdir("/") != 0) {
            throw std::system_error(errno, std::generic_category(), "chroot");
        }
    }

    const tests::ScratchFolder root;
};

} // namespace

TEST(CreateFolder, MakesAFolderForItsOwnerAlone) {
    const tests::ScratchFolder scratch;

    tests::expectLogged([&] { createFolder(scratch / "new"); }, {});

    EXPECT_TRUE(S_ISDIR(tests::statusOf(scratch / "new").st_mode));
    EXPECT_EQ(tests::modeOf(scratch / "new"), 0700U);
    EXPECT_EQ(tests::statusOf(scratch / "new").st_uid, ::geteuid());
}

TEST(CreateFolder, AcceptsATrailingSeparator) {
    const tests::ScratchFolder scratch;

    createFolder(scratch / "new/");

    EXPECT_EQ(tests::modeOf(scratch / "new"), 0700U);
}

TEST(CreateFolder, ObeysTheUmask) {
    const tests::ScratchFolder scratch;

    const tests::Umask none(0);
    createFolder(scratch / "open");
    EXPECT_EQ(tests::modeOf(scratch / "open"), 0700U);

    const tests::Umask strict(0077);
    createFolder(scratch / "private");
    EXPECT_EQ(tests::modeOf(scratch / "private"), 0700U);

    const tests::Umask odd(0200);
    createFolder(scratch / "odd");
    EXPECT_EQ(tests::modeOf(scratch / "odd"), 0500U);
}

TEST(CreateFolder, LeavesAnExistingFolderAsItIs) {
    const tests::ScratchFolder scratch;
    tests::makeFolder(scratch / "there", 0751);

    tests::expectLogged([&] { createFolder(scratch / "there"); }, {});

    EXPECT_EQ(tests::modeOf(scratch / "there"), 0751U);
}

TEST(CreateFolder, TakesAFileOfThatNameForSuccess) {
    const tests::ScratchFolder scratch;
    std::ofstream(scratch / "file") << "content";

    tests::expectLogged([&] { createFolder(scratch / "file"); }, {});

    EXPECT_TRUE(S_ISREG(tests::statusOf(scratch / "file").st_mode));
    EXPECT_EQ(tests::statusOf(scratch / "file").st_size, 7);
}

TEST(CreateFolder, TakesALinkToNowhereForSuccess) {
    const tests::ScratchFolder scratch;
    ASSERT_EQ(::symlink((scratch / "nowhere").c_str(), (scratch / "link").c_str()), 0);

    createFolder(scratch / "link");

    EXPECT_NE(::access((scratch / "nowhere").c_str(), F_OK), 0);
}

TEST(CreateFolder, MakesNoMoreThanOneLevel) {
    const tests::ScratchFolder scratch;
    const std::string path = scratch / "missing/new";

    tests::expectReported<std::runtime_error>([&] { createFolder(path); }, inconsistency,
                                              notCreated(path, ENOENT));
    EXPECT_NE(::access((scratch / "missing").c_str(), F_OK), 0);
}

TEST(CreateFolder, ReportsAFileInThePlaceOfTheFolderAbove) {
    const tests::ScratchFolder scratch;
    std::ofstream(scratch / "file") << "content";
    const std::string path = scratch / "file/new";

    tests::expectReported<std::runtime_error>([&] { createFolder(path); }, inconsistency,
                                              notCreated(path, ENOTDIR));
}

TEST(CreateFolder, ReportsAnEmptyPath) {
    tests::expectReported<std::runtime_error>([] { createFolder(""); }, inconsistency,
                                              notCreated("", ENOENT));
}

TEST(CreateFolder, ReportsAFolderThatMayNotBeWritten) {
    if (!accounts::available()) {
        GTEST_SKIP() << accounts::whyNot;
    }
    const tests::ScratchFolder scratch;
    tests::makeFolder(scratch / "roots", 0755);
    const std::string path = scratch / "roots/new";

    EXPECT_EQ(tests::runInChild([&] {
                  accounts::become(accounts::anna);
                  tests::expectReported<std::runtime_error>(
                      [&] { createFolder(path); }, inconsistency, notCreated(path, EACCES));
              }),
              0);
}

TEST(CreateFolder, ThrowsTheSameWithLoggingOff) {
    const tests::ScratchFolder scratch;

    tests::expectThrown<std::runtime_error>([&] { createFolder(scratch / "missing/new"); },
                                            inconsistency);
}

TEST(CreateFolder, SucceedsForEveryoneWhoMakesTheSameFolderAtOnce) {
    const tests::ScratchFolder scratch;
    constexpr int rounds = 200;
    std::vector<std::unique_ptr<tests::ForkedProcess>> children;
    for (int i = 0; i < 4; ++i) {
        children.push_back(std::make_unique<tests::ForkedProcess>([&](tests::Channel&) {
            for (int round = 0; round < rounds; ++round) {
                createFolder(scratch / std::to_string(round));
            }
        }));
    }
    for (const auto& child : children) {
        EXPECT_EQ(child->waitForExit(), 0);
    }
    EXPECT_EQ(tests::modeOf(scratch / std::to_string(rounds - 1)), 0700U);
}

TEST(UsersPath, IsTheFolderOfTheHomes) {
    EXPECT_EQ(getUsersPath(), "/home");
    EXPECT_EQ(getSharedFolderPath(), "/home/Shared");
}

TEST_F(UsersPathInAnotherRoot, IsEmptyWithoutAHomeFolder) {
    EXPECT_EQ(tests::runInChild([this] {
                  enter();
                  EXPECT_EQ(getUsersPath(), "");
              }),
              0);
}

TEST_F(UsersPathInAnotherRoot, IsEmptyWhereAFileIsInItsPlace) {
    std::ofstream(root / "home") << "content";

    EXPECT_EQ(tests::runInChild([this] {
                  enter();
                  EXPECT_EQ(getUsersPath(), "");
              }),
              0);
}

TEST_F(UsersPathInAnotherRoot, IsThereAgainWithTheFolderEvenIfNothingIsSharedThere) {
    EXPECT_EQ(tests::runInChild([this] {
                  enter();
                  EXPECT_EQ(getUsersPath(), "");
                  tests::makeFolder("/home", 0755);
                  EXPECT_EQ(getUsersPath(), "/home");
                  EXPECT_EQ(getSharedFolderPath(), "/home/Shared");
              }),
              0);
}

TEST_F(UsersPathInAnotherRoot, IsReportedByTheSharedFolderWhereItIsEmpty) {
    EXPECT_EQ(tests::runInChild([this] {
                  enter();
                  tests::expectReported<std::runtime_error>(
                      [] { getSharedFolderPath(); },
                      "Utils::getSharedFolderPath:Failed to get the path to Users folder",
                      "Utils::getSharedFolderPath: Failed to get the path to Users folder");
              }),
              0);
}
