#include "foundation/paths/CorvantisPath.h"
#include "fl/i18n/UstringConversion.h"
#include "foundation/os/FileIdentity.h"
#include "tests/support/ForkedProcess.h"
#include "tests/support/TestAccounts.h"

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <gtest/gtest.h>
#include <list>
#include <stdexcept>
#include <string>
#include <sys/stat.h>
#include <unistd.h>

namespace {

namespace accounts = tests::accounts;
namespace fs = std::filesystem;
using foundation::os::identityAt;
using tests::Channel;
using tests::ForkedProcess;

std::string privateBase() {
    return fl::i18n::ustring_to_utf8(
        foundation::paths::getCorvantisPath(foundation::paths::LocationHint::PrivateBase));
}

std::string expectedPath(uid_t user = ::geteuid()) {
    return "/dev/shm/Corvantis-" + std::to_string(user);
}

void expectPrivateFolder(const std::string& path, uid_t owner) {
    struct stat status {};
    ASSERT_EQ(::lstat(path.c_str(), &status), 0) << path;
    EXPECT_EQ(status.st_mode, static_cast<mode_t>(S_IFDIR | S_IRWXU)) << path;
    EXPECT_EQ(status.st_uid, owner) << path;
}

/// Each test starts without the folder, and leaves none.
class CorvantisPath : public testing::Test {
protected:
    void SetUp() override { clear(); }
    void TearDown() override { clear(); }

    static void clear() {
        for (const auto& entry : fs::directory_iterator("/dev/shm")) {
            fs::remove_all(entry.path());
        }
    }
};

TEST_F(CorvantisPath, NamesAFolderOfTheUserInSharedMemory) {
    EXPECT_EQ(privateBase(), expectedPath());
    expectPrivateFolder(expectedPath(), ::geteuid());
}

TEST_F(CorvantisPath, IsPrivateUnderAnyUmask) {
    for (const mode_t mask : {0000U, 0022U, 0077U}) {
        clear();
        EXPECT_EQ(tests::runInChild([mask] {
                      ::umask(mask);
                      privateBase();
                  }),
                  0);
        expectPrivateFolder(expectedPath(), ::geteuid());
    }
}

TEST_F(CorvantisPath, LeavesTheUmaskAsItWas) {
    EXPECT_EQ(tests::runInChild([] {
                  ::umask(S_IWGRP);
                  privateBase();
                  EXPECT_EQ(::umask(0), static_cast<mode_t>(S_IWGRP));
              }),
              0);
}

TEST_F(CorvantisPath, KeepsTheFolderThatIsThere) {
    const std::string path = privateBase();
    std::ofstream(path + "/file") << "content";
    const auto before = identityAt(path);
    EXPECT_EQ(privateBase(), path);
    EXPECT_EQ(identityAt(path), before);
    EXPECT_TRUE(fs::exists(path + "/file"));
}

TEST_F(CorvantisPath, MakesTheFolderAgainWhenItIsGone) {
    fs::remove(privateBase());
    expectPrivateFolder(privateBase(), ::geteuid());
}

TEST_F(CorvantisPath, IsMadeByManyProcessesAtOnce) {
    constexpr int rounds = 20;
    for (int round = 0; round < rounds; ++round) {
        clear();
        std::list<ForkedProcess> processes;
        for (int i = 0; i < 4; ++i) {
            processes.emplace_back([](Channel& channel) {
                channel.receive();
                EXPECT_EQ(privateBase(), expectedPath());
            });
        }
        for (auto& process : processes) {
            process.channel().send("go");
        }
        for (auto& process : processes) {
            EXPECT_EQ(process.waitForExit(), 0);
        }
    }
}

TEST_F(CorvantisPath, RefusesALinkToNothingAndMakesNothingBehindIt) {
    fs::create_symlink("/dev/shm/elsewhere", expectedPath());
    EXPECT_THROW(privateBase(), std::runtime_error);
    EXPECT_FALSE(fs::exists("/dev/shm/elsewhere"));
    EXPECT_TRUE(fs::is_symlink(expectedPath()));
}

TEST_F(CorvantisPath, RefusesALinkEvenToAPrivateFolder) {
    ASSERT_EQ(::mkdir("/dev/shm/elsewhere", S_IRWXU), 0);
    fs::create_directory_symlink("/dev/shm/elsewhere", expectedPath());
    EXPECT_THROW(privateBase(), std::runtime_error);
    EXPECT_TRUE(fs::is_empty("/dev/shm/elsewhere"));
    EXPECT_TRUE(fs::is_symlink(expectedPath()));
}

TEST_F(CorvantisPath, RefusesAFile) {
    std::ofstream(expectedPath()) << "content";
    fs::permissions(expectedPath(), fs::perms::owner_all);
    EXPECT_THROW(privateBase(), std::runtime_error);
    EXPECT_EQ(fs::file_size(expectedPath()), 7U);
}

TEST_F(CorvantisPath, RefusesAPipe) {
    ASSERT_EQ(::mkfifo(expectedPath().c_str(), S_IRWXU), 0);
    EXPECT_THROW(privateBase(), std::runtime_error);
}

TEST_F(CorvantisPath, RefusesAFolderThatIsOpenToOthers) {
    for (const mode_t mode : {0770U, 0740U, 0720U, 0710U, 0704U, 0702U, 0701U, 01777U}) {
        clear();
        ASSERT_EQ(::mkdir(expectedPath().c_str(), S_IRWXU), 0);
        ASSERT_EQ(::chmod(expectedPath().c_str(), mode), 0);
        EXPECT_THROW(privateBase(), std::runtime_error) << std::oct << mode;
        struct stat status {};
        ASSERT_EQ(::stat(expectedPath().c_str(), &status), 0);
        EXPECT_EQ(status.st_mode, S_IFDIR | mode);
    }
}

TEST_F(CorvantisPath, RefusesAFolderOfAnotherUser) {
    if (!accounts::available()) {
        GTEST_SKIP() << accounts::whyNot;
    }
    const uid_t anna = accounts::userId(accounts::anna);
    ASSERT_EQ(tests::runInChild([anna] {
                  accounts::become(accounts::carl);
                  EXPECT_EQ(::mkdir(expectedPath(anna).c_str(), S_IRWXU), 0);
              }),
              0);
    EXPECT_EQ(tests::runInChild([] {
                  accounts::become(accounts::anna);
                  EXPECT_THROW(privateBase(), std::runtime_error);
              }),
              0);
    expectPrivateFolder(expectedPath(anna), accounts::userId(accounts::carl));
}

TEST_F(CorvantisPath, RefusesAFolderOfAnotherUserEvenAsRoot) {
    if (!accounts::available()) {
        GTEST_SKIP() << accounts::whyNot;
    }
    ASSERT_EQ(::mkdir(expectedPath().c_str(), S_IRWXU), 0);
    ASSERT_EQ(::chown(expectedPath().c_str(), accounts::userId(accounts::anna), 0), 0);
    EXPECT_THROW(privateBase(), std::runtime_error);
}

TEST_F(CorvantisPath, GivesEveryUserAFolderOfItsOwn) {
    if (!accounts::available()) {
        GTEST_SKIP() << accounts::whyNot;
    }
    for (const auto& user : {accounts::anna, accounts::ben}) {
        EXPECT_EQ(tests::runInChild([&user] {
                      accounts::become(user);
                      EXPECT_EQ(privateBase(), expectedPath(accounts::userId(user)));
                  }),
                  0);
        expectPrivateFolder(expectedPath(accounts::userId(user)), accounts::userId(user));
    }
}

TEST_F(CorvantisPath, FollowsTheEffectiveUserOfTheProcess) {
    if (!accounts::available()) {
        GTEST_SKIP() << accounts::whyNot;
    }
    const uid_t anna = accounts::userId(accounts::anna);
    EXPECT_EQ(tests::runInChild([anna] {
                  EXPECT_EQ(privateBase(), expectedPath(0));
                  EXPECT_EQ(::seteuid(anna), 0);
                  EXPECT_EQ(privateBase(), expectedPath(anna));
                  expectPrivateFolder(expectedPath(anna), anna);
                  EXPECT_EQ(::seteuid(0), 0);
                  EXPECT_EQ(privateBase(), expectedPath(0));
              }),
              0);
}

} // namespace
