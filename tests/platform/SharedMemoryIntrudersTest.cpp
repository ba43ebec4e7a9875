#include "foundation/os/FileIdentity.h"
#include "tests/platform/SharedMemoryTools.h"
#include "tests/support/ForkedProcess.h"
#include "tests/support/TestAccounts.h"

#include <cstdint>
#include <filesystem>
#include <fstream>
#include <functional>
#include <gtest/gtest.h>
#include <optional>
#include <stdexcept>
#include <string>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

namespace {

namespace accounts = tests::accounts;
namespace fs = std::filesystem;
using foundation::os::identityAt;
using tests::create;
using tests::createOrFind;
using tests::find;
using tests::SharedMemory;
using tests::someSize;

void makeFile(const std::string& path, mode_t mode) {
    std::ofstream(path) << std::string(10000, 'x');
    EXPECT_EQ(::chmod(path.c_str(), mode), 0);
}

/// What others may have put where a segment belongs.
class SharedMemoryIntruders : public tests::SharedMemoryTest {
protected:
    /// Expects that what `plant` puts under the segment's file name is neither used nor changed.
    static void expectRefused(const std::function<void(const std::string& path)>& plant,
                              const std::string& trustee = "") {
        for (const std::string name : {"name", "na/me"}) {
            SCOPED_TRACE(name);
            const std::string path = tests::fileOf(name, trustee);
            plant(path);
            const auto identity = identityAt(path);
            const auto files = tests::segmentFiles();
            ASSERT_TRUE(identity);
            // In a child, where an opener that waits would be noticed.
            EXPECT_EQ(tests::runInChild([&] {
                          EXPECT_FALSE(find(name, someSize, trustee).isAttached());
                          EXPECT_THROW(create(name, someSize, trustee), std::runtime_error);
                          EXPECT_THROW(createOrFind(name, someSize, trustee), std::runtime_error);
                          EXPECT_EQ(SharedMemory::read(name, someSize, trustee, tests::posix),
                                    std::nullopt);
                          EXPECT_THROW(
                              SharedMemory::createFilled(name, "contents", trustee, tests::posix),
                              std::runtime_error);
                      }),
                      0);
            EXPECT_EQ(identityAt(path), identity);
            EXPECT_EQ(tests::segmentFiles(), files);
            clear();
        }
    }
};

TEST_F(SharedMemoryIntruders, AreRefusedAsFilesThatOthersMayOpen) {
    for (const mode_t mode : {0666U, 0640U, 0620U, 0604U, 0602U}) {
        expectRefused([mode](const std::string& path) { makeFile(path, mode); });
    }
}

TEST_F(SharedMemoryIntruders, AreRefusedAsFilesWithHoles) {
    // Reading a hole takes memory, and kills the process where there is none left.
    expectRefused([](const std::string& path) {
        makeFile(path, S_IRUSR | S_IWUSR);
        fs::resize_file(path, std::uintmax_t{1} << 32U);
    });
}

TEST_F(SharedMemoryIntruders, AreRefusedAsSegmentsOfAnotherNameUnderTheSameFileName) {
    // Only names that no file can have share their file names, and that by accident only.
    const std::string path = tests::fileOf("na/me");
    const SharedMemory other = create("other/name");
    fs::rename(tests::segmentFiles().at(0), path);
    EXPECT_FALSE(find("na/me").isAttached());
    EXPECT_EQ(SharedMemory::read("na/me", 1, "", tests::posix), std::nullopt);
    EXPECT_THROW(create("na/me"), std::runtime_error);
    EXPECT_THROW(createOrFind("na/me"), std::runtime_error);
    makeFile(path, S_IRUSR | S_IWUSR);
    fs::resize_file(path, 1);
    EXPECT_FALSE(find("na/me", 1).isAttached());
    EXPECT_EQ(SharedMemory::read("na/me", 1, "", tests::posix), std::nullopt);
    EXPECT_THROW(create("na/me"), std::runtime_error);
    clear();
}

TEST_F(SharedMemoryIntruders, AreRefusedAsLinksToNothingAndMakeNothingThere) {
    expectRefused([](const std::string& path) { fs::create_symlink("/dev/shm/target", path); });
}

TEST_F(SharedMemoryIntruders, AreRefusedAsLinksToAGoodSegment) {
    const std::string good = tests::fileOf("good");
    expectRefused([&good](const std::string& path) {
        makeFile(good, S_IRUSR | S_IWUSR);
        fs::create_symlink(good, path);
    });
}

TEST_F(SharedMemoryIntruders, AreRefusedAsPipesWithoutWaiting) {
    expectRefused(
        [](const std::string& path) { EXPECT_EQ(::mkfifo(path.c_str(), S_IRUSR | S_IWUSR), 0); });
}

TEST_F(SharedMemoryIntruders, AreRefusedAsFolders) {
    expectRefused([](const std::string& path) { fs::create_directory(path); });
}

TEST_F(SharedMemoryIntruders, AreRefusedAsSockets) {
    expectRefused([](const std::string& path) {
        const foundation::os::FileDescriptor socket(
            ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
        sockaddr_un address{};
        address.sun_family = AF_UNIX;
        ASSERT_LT(path.size(), sizeof address.sun_path);
        path.copy(static_cast<char*>(address.sun_path), path.size());
        EXPECT_EQ(::bind(socket.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address),
                  0);
    });
}

TEST_F(SharedMemoryIntruders, AreRefusedAsFilesOfAnotherUser) {
    if (!accounts::available()) {
        GTEST_SKIP() << accounts::whyNot;
    }
    for (const mode_t mode : {0600U, 0666U}) {
        expectRefused([mode](const std::string& path) {
            makeFile(path, mode);
            EXPECT_EQ(::chown(path.c_str(), accounts::userId(accounts::carl), 0), 0);
        });
    }
}

TEST_F(SharedMemoryIntruders, AreRefusedAsFilesOfAnotherUserByOrdinaryUsersToo) {
    if (!accounts::available()) {
        GTEST_SKIP() << accounts::whyNot;
    }
    EXPECT_EQ(tests::runInChild([] {
                  // Ownership is the only thing wrong with the file.
                  EXPECT_EQ(::seteuid(accounts::userId(accounts::anna)), 0);
                  const std::string path = tests::fileOf("name");
                  EXPECT_EQ(::seteuid(0), 0);
                  makeFile(path, 0666);
                  EXPECT_EQ(::chown(path.c_str(), accounts::userId(accounts::carl), 0), 0);
                  accounts::become(accounts::anna);
                  EXPECT_FALSE(find("name").isAttached());
                  EXPECT_THROW(create("name"), std::runtime_error);
                  EXPECT_THROW(createOrFind("name"), std::runtime_error);
              }),
              0);
    clear();
}

TEST_F(SharedMemoryIntruders, AreRefusedInTheNameOfATrustee) {
    if (!accounts::available()) {
        GTEST_SKIP() << accounts::whyNot;
    }
    struct Planted {
        mode_t mode;
        gid_t group;
    };
    const gid_t friends = accounts::groupId(accounts::friends);
    const gid_t carls = accounts::groupId(accounts::carl);
    for (const auto& [mode, group] :
         {Planted{0666, friends}, Planted{0664, friends}, Planted{0640, friends},
          Planted{0600, friends}, Planted{0660, carls}, Planted{0666, carls}}) {
        expectRefused(
            [mode = mode, group = group](const std::string& path) {
                makeFile(path, mode);
                EXPECT_EQ(::chown(path.c_str(), accounts::userId(accounts::carl), group), 0);
            },
            accounts::friends);
    }
}

TEST_F(SharedMemoryIntruders, DoNotStopASegmentFromEndingOrMeetItsEnd) {
    const std::string path = tests::fileOf("name");
    {
        const SharedMemory memory = create("name");
        fs::rename(path, "/dev/shm/moved away");
        makeFile(path, S_IRUSR | S_IWUSR);
    }
    EXPECT_TRUE(fs::exists(path));
    clear();
}

} // namespace
