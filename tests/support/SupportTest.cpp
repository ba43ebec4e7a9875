#include "foundation/log/DiagnosticLogger.h"
#include "foundation/os/Accounts.h"
#include "foundation/os/FileDescriptor.h"
#include "tests/support/ForkedProcess.h"
#include "tests/support/Isolation.h"
#include "tests/support/LogCapture.h"
#include "tests/support/SmallSharedMemory.h"
#include "tests/support/TestAccounts.h"

#include <array>
#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <fcntl.h>
#include <filesystem>
#include <gtest/gtest.h>
#include <stdexcept>
#include <string>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <unistd.h>
#include <vector>

namespace {

namespace accounts = tests::accounts;
namespace fs = std::filesystem;
using foundation::log::severity;
using foundation::os::FileDescriptor;
using tests::Channel;
using tests::ForkedProcess;

TEST(Isolation, SharedMemoryIsEmptyAndOpenToAll) {
    EXPECT_TRUE(fs::is_empty("/dev/shm"));
    struct stat status {};
    ASSERT_EQ(::stat("/dev/shm", &status), 0);
    EXPECT_EQ(status.st_mode & ~static_cast<mode_t>(S_IFMT), 01777U);
}

TEST(Isolation, HasNoSharedHomeYetAndLetsItBeMade) {
    EXPECT_FALSE(fs::exists("/home/Shared"));
    EXPECT_TRUE(fs::create_directory("/home/Shared"));
}

TEST(Isolation, SharedMemoryCanBeLimitedInAChild) {
    if (!tests::canLimitSharedMemory()) {
        GTEST_SKIP() << "needs a mount namespace in a mount namespace";
    }
    const uid_t user = ::geteuid();
    const auto blocksSeen = [] {
        struct statvfs status {};
        EXPECT_EQ(::statvfs("/dev/shm", &status), 0);
        return status.f_blocks * status.f_frsize;
    };
    const auto before = blocksSeen();
    EXPECT_EQ(tests::runInChild([&] {
                  tests::limitSharedMemoryTo(65536);
                  EXPECT_EQ(blocksSeen(), 65536U);
                  EXPECT_EQ(::geteuid(), user);
                  EXPECT_TRUE(fs::create_directory("/dev/shm/usable"));
              }),
              0);
    EXPECT_EQ(blocksSeen(), before);
}

std::string profile() {
    // NOLINTNEXTLINE(concurrency-mt-unsafe): no test changes the environment
    const char* const name = std::getenv(tests::isolatedVariable);
    return name == nullptr ? "" : name;
}

TEST(Profile, TakesUnnamedFilesAwayAndNothingElse) {
    const FileDescriptor unnamed(
        ::open("/dev/shm", O_TMPFILE | O_RDWR | O_CLOEXEC, S_IRUSR | S_IWUSR));
    if (profile() == "no-unnamed-files") {
        EXPECT_FALSE(unnamed);
        EXPECT_EQ(errno, EOPNOTSUPP);
    } else {
        EXPECT_TRUE(unnamed);
    }
    EXPECT_TRUE(FileDescriptor(::open("/dev/shm", O_RDONLY | O_DIRECTORY | O_CLOEXEC)));
}

TEST(Profile, TakesLinkingByTheEmptyPathAway) {
    const bool isTaken =
        profile() == "no-empty-path-link" || profile() == "no-empty-path-link-no-proc";
    if (!isTaken && ::geteuid() != 0) {
        GTEST_SKIP() << "only newer kernels let everybody do it";
    }
    const FileDescriptor file(
        ::open("/dev/shm/named", O_CREAT | O_EXCL | O_RDWR | O_CLOEXEC, S_IRUSR | S_IWUSR));
    const int result = ::linkat(file.get(), "", AT_FDCWD, "/dev/shm/linked", AT_EMPTY_PATH);
    const int error = errno;
    EXPECT_EQ(result, isTaken ? -1 : 0);
    if (isTaken) {
        EXPECT_EQ(error, ENOENT);
    }
    EXPECT_EQ(::link("/dev/shm/named", "/dev/shm/linked by name"), 0);
}

TEST(Profile, TakesProcAway) {
    EXPECT_EQ(fs::exists("/proc/self"), profile() != "no-empty-path-link-no-proc");
}

TEST(ForkedProcess, ExitsWithZeroWhenItsFunctionReturns) {
    EXPECT_EQ(tests::runInChild([] {}), 0);
}

TEST(ForkedProcess, ReportsAFailedExpectation) {
    // Its message would look like a failure of this test.
    testing::internal::CaptureStdout();
    const int status = tests::runInChild([] { EXPECT_TRUE(false); });
    EXPECT_NE(testing::internal::GetCapturedStdout().find("Failure"), std::string::npos);
    EXPECT_EQ(status, 1);
}

TEST(ForkedProcess, ReportsAnException) {
    testing::internal::CaptureStderr();
    const int status = tests::runInChild([] { throw std::runtime_error("broken"); });
    EXPECT_NE(testing::internal::GetCapturedStderr().find("broken"), std::string::npos);
    EXPECT_EQ(status, 1);
}

TEST(ForkedProcess, DoesNotTakeADeathByASignalForAnExit) {
    ForkedProcess child([](Channel&) { ::kill(::getpid(), SIGKILL); });
    EXPECT_THROW(child.waitForExit(), std::runtime_error);
}

TEST(ForkedProcess, IsGoneAfterItWasKilled) {
    ForkedProcess child([](Channel& channel) { channel.receive(); });
    child.kill();
    EXPECT_EQ(::kill(child.pid(), 0), -1);
}

TEST(ForkedProcess, IsGoneWithItsOwner) {
    pid_t process = -1;
    {
        const ForkedProcess child([](Channel& channel) { channel.receive(); });
        process = child.pid();
    }
    EXPECT_EQ(::kill(process, 0), -1);
}

TEST(Channel, CarriesWholeMessagesInOrder) {
    const std::string withNul("a\0b", 3);
    const std::string large(100000, 'x');
    ForkedProcess child([](Channel& channel) {
        for (int i = 0; i < 4; ++i) {
            channel.send(channel.receive());
        }
    });
    for (const auto& message : {std::string(), withNul, large, std::string("last")}) {
        child.channel().send(message);
    }
    EXPECT_EQ(child.channel().receive(), "");
    EXPECT_EQ(child.channel().receive(), withNul);
    EXPECT_EQ(child.channel().receive(), large);
    EXPECT_EQ(child.channel().receive(), "last");
    EXPECT_EQ(child.waitForExit(), 0);
}

TEST(Channel, TellsThatTheOtherSideIsGone) {
    ForkedProcess child([](Channel&) {});
    EXPECT_THROW(child.channel().receive(), std::runtime_error);
}

TEST(TestAccounts, KnowsWhoIsAFriend) {
    if (!accounts::available()) {
        GTEST_SKIP() << accounts::whyNot;
    }
    const auto groupsOf = [](const std::string& user) {
        std::string names;
        ForkedProcess child([&user](Channel& channel) {
            accounts::become(user);
            std::array<gid_t, 16> groups{};
            const int count = ::getgroups(groups.size(), groups.data());
            std::string joined;
            for (int i = 0; i < count; ++i) {
                joined += foundation::os::findGroupName(groups.at(static_cast<std::size_t>(i)))
                              .value_or("?") +
                          " ";
            }
            channel.send(joined);
        });
        return child.channel().receive();
    };
    EXPECT_EQ(groupsOf(accounts::anna), "anna friends family ");
    EXPECT_EQ(groupsOf(accounts::ben), "ben friends family ");
    EXPECT_EQ(groupsOf(accounts::carl), "carl ");
}

TEST(TestAccounts, BecomesAnotherUserForGood) {
    if (!accounts::available()) {
        GTEST_SKIP() << accounts::whyNot;
    }
    EXPECT_EQ(tests::runInChild([] {
                  const uid_t user = accounts::userId(accounts::anna);
                  accounts::become(accounts::anna);
                  EXPECT_EQ(::getuid(), user);
                  EXPECT_EQ(::geteuid(), user);
                  EXPECT_TRUE(fs::create_directory("/dev/shm/usable"));
                  EXPECT_EQ(::getegid(), accounts::groupId(accounts::anna));
                  EXPECT_NE(::setuid(0), 0);
              }),
              0);
}

TEST(TestAccounts, KeepsTheCallersOwnEntry) {
    if (!accounts::available()) {
        GTEST_SKIP() << accounts::whyNot;
    }
    EXPECT_EQ(foundation::os::findUserName(0), "root");
    EXPECT_EQ(foundation::os::findGroupName(0), "root");
}

TEST(LogCapture, CollectsWhatItsFilterEnablesAndPrintsNothing) {
    foundation::log::basic_diagnostic_logger<char> logger("some::channel");
    testing::internal::CaptureStdout();
    testing::internal::CaptureStderr();
    std::vector<tests::LogRecord> records;
    {
        const tests::LogCapture capture("some::channel=error");
        logger.log(severity::error, "text ", 7);
        logger.log(severity::warning, "too small");
        records = capture.records();
    }
    logger.log(severity::error, "too late");
    EXPECT_EQ(records, (std::vector<tests::LogRecord>{{"some::channel", 512, "text 7"}}));
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "");
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "");
}

TEST(LogCapture, TakesAllChannelsOfTheRegistryByDefault) {
    foundation::log::basic_diagnostic_logger<char> registry(tests::registryChannel);
    foundation::log::basic_diagnostic_logger<char> moves(tests::moveAndDestructionChannel);
    foundation::log::basic_diagnostic_logger<char> memory("agent::spf::sharedmemory");
    const tests::LogCapture capture;
    registry.log(severity::finest, "1");
    moves.log(severity::trace, "2");
    memory.log(severity::fatal, "3");
    EXPECT_EQ(capture.records(),
              (std::vector<tests::LogRecord>{{tests::registryChannel, 1, "1"},
                                             {tests::moveAndDestructionChannel, 4, "2"},
                                             {"agent::spf::sharedmemory", 1024, "3"}}));
}

} // namespace
