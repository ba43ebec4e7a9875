#include "foundation/os/AtomicFile.h"
#include "foundation/os/FileDescriptor.h"
#include "foundation/os/FileIdentity.h"
#include "tests/support/ForkedProcess.h"

#include <array>
#include <cerrno>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <gtest/gtest.h>
#include <stdexcept>
#include <string>
#include <string_view>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>
#include <utility>
#include <vector>

namespace {

namespace fs = std::filesystem;
using foundation::os::AtomicFile;
using foundation::os::createFileAtomically;
using foundation::os::FileDescriptor;
using foundation::os::identityAt;
using foundation::os::identityOf;
using tests::Channel;
using tests::ForkedProcess;

constexpr mode_t ownerOnly = S_IRUSR | S_IWUSR;
constexpr std::string_view content = "finished";

int writeContent(int descriptor) {
    return ::write(descriptor, content.data(), content.size()) ==
                   static_cast<ssize_t>(content.size())
               ? 0
               : errno;
}

std::string read(const std::string& path) {
    std::ifstream file(path);
    return {std::istreambuf_iterator<char>(file), {}};
}

/// The files of this test, in a folder of their own.
class AtomicFiles : public testing::Test {
protected:
    void SetUp() override { fs::create_directory(folder); }
    void TearDown() override { fs::remove_all(folder); }

    std::vector<std::string> names() const {
        std::vector<std::string> found;
        for (const auto& entry : fs::directory_iterator(folder)) {
            found.push_back(entry.path().filename());
        }
        return found;
    }

    // NOLINTBEGIN(cppcoreguidelines-non-private-member-variables-in-classes): a fixture
    const std::string folder = "/dev/shm/appearing";
    const std::string path = folder + "/file";
    // NOLINTEND(cppcoreguidelines-non-private-member-variables-in-classes)
};

TEST_F(AtomicFiles, AreAsTheyWerePrepared) {
    const AtomicFile file = createFileAtomically(path, ownerOnly, writeContent);
    ASSERT_TRUE(file.descriptor);
    EXPECT_EQ(file.error, 0);
    EXPECT_EQ(identityOf(file.descriptor.get()), identityAt(path));
    EXPECT_EQ(read(path), content);
    struct stat status {};
    ASSERT_EQ(::stat(path.c_str(), &status), 0);
    EXPECT_EQ(status.st_mode, S_IFREG | ownerOnly);
    EXPECT_EQ(status.st_nlink, 1U);
    EXPECT_EQ(names(), std::vector<std::string>{"file"});
}

TEST_F(AtomicFiles, HaveExactlyTheirModeUnderAnyUmask) {
    constexpr mode_t shared = ownerOnly | S_IRGRP | S_IWGRP | S_IROTH | S_IWOTH;
    for (const mode_t mask : {0000U, 0077U, 0777U}) {
        EXPECT_EQ(tests::runInChild([&] {
                      ::umask(mask);
                      EXPECT_TRUE(createFileAtomically(path, shared, writeContent).descriptor);
                      EXPECT_EQ(::umask(0), mask);
                  }),
                  0);
        struct stat status {};
        ASSERT_EQ(::stat(path.c_str(), &status), 0);
        EXPECT_EQ(status.st_mode, S_IFREG | shared) << std::oct << mask;
        fs::remove(path);
    }
}

TEST_F(AtomicFiles, HaveNoNameWhileTheyArePrepared) {
    const AtomicFile file = createFileAtomically(path, ownerOnly, [this](int descriptor) {
        EXPECT_FALSE(fs::exists(path));
        struct stat status {};
        EXPECT_EQ(::fstat(descriptor, &status), 0);
        EXPECT_EQ(status.st_size, 0);
        return 0;
    });
    EXPECT_TRUE(file.descriptor);
}

TEST_F(AtomicFiles, AreNotPassedOnToPrograms) {
    const AtomicFile file = createFileAtomically(path, ownerOnly, writeContent);
    EXPECT_EQ(::fcntl(file.descriptor.get(), F_GETFD), FD_CLOEXEC);
}

TEST_F(AtomicFiles, LeaveWhatHasTheNameAlone) {
    std::ofstream(path) << "older";
    const auto older = identityAt(path);
    const AtomicFile file = createFileAtomically(path, ownerOnly, writeContent);
    EXPECT_FALSE(file.descriptor);
    EXPECT_EQ(file.error, EEXIST);
    EXPECT_EQ(identityAt(path), older);
    EXPECT_EQ(read(path), "older");
    EXPECT_EQ(names(), std::vector<std::string>{"file"});
}

TEST_F(AtomicFiles, DoNotFollowALinkOfTheirName) {
    fs::create_symlink(folder + "/target", path);
    EXPECT_EQ(createFileAtomically(path, ownerOnly, writeContent).error, EEXIST);
    EXPECT_EQ(names(), std::vector<std::string>{"file"});
}

TEST_F(AtomicFiles, DoNotAppearWhenTheirPreparationFails) {
    const AtomicFile file = createFileAtomically(path, ownerOnly, [](int) { return ENOSPC; });
    EXPECT_FALSE(file.descriptor);
    EXPECT_EQ(file.error, ENOSPC);
    EXPECT_TRUE(names().empty());
}

TEST_F(AtomicFiles, DoNotAppearWhenTheirPreparationThrows) {
    const auto fail = [](int) -> int { throw std::domain_error("preparation"); };
    EXPECT_THROW(createFileAtomically(path, ownerOnly, fail), std::domain_error);
    EXPECT_TRUE(names().empty());
}

TEST_F(AtomicFiles, NeedTheirFolder) {
    const AtomicFile file = createFileAtomically(folder + "/none/file", ownerOnly, writeContent);
    EXPECT_FALSE(file.descriptor);
    EXPECT_EQ(file.error, ENOENT);
}

TEST_F(AtomicFiles, KeepALockThatTheirPreparationTook) {
    const AtomicFile file = createFileAtomically(path, ownerOnly, [](int descriptor) {
        return ::flock(descriptor, LOCK_EX | LOCK_NB) == 0 ? 0 : errno;
    });
    const FileDescriptor other(::open(path.c_str(), O_RDONLY | O_CLOEXEC));
    EXPECT_NE(::flock(other.get(), LOCK_EX | LOCK_NB), 0);
    EXPECT_EQ(errno, EWOULDBLOCK);
}

/// A process that makes the file and tells each time that it prepares one, and when it is made;
/// every time it waits to be told to go on.
class SlowMaker {
public:
    explicit SlowMaker(const std::string& path)
        : process([&path](Channel& channel) {
            const AtomicFile file =
                createFileAtomically(path, ownerOnly, [&channel](int descriptor) {
                    channel.send("preparing");
                    channel.receive();
                    return writeContent(descriptor);
                });
            EXPECT_TRUE(file.descriptor);
            channel.send("made");
            channel.receive();
        }) {}

    /// Whether it prepares one, or else has made it.
    bool prepares() { return process.channel().receive() == "preparing"; }
    void goOn() { process.channel().send("go on"); }
    void kill() { process.kill(); }
    int waitForExit() { return process.waitForExit(); }

private:
    ForkedProcess process;
};

TEST_F(AtomicFiles, LeaveNoTraceOfMakersThatWereKilled) {
    // A maker that cannot name its first file prepares a second one.
    for (const bool isFirst : {true, false}) {
        SlowMaker maker(path);
        ASSERT_TRUE(maker.prepares());
        if (!isFirst) {
            maker.goOn();
            maker.prepares();
        }
        maker.kill();
        fs::remove(path);
        const AtomicFile file = createFileAtomically(path, ownerOnly, writeContent);
        EXPECT_TRUE(file.descriptor);
        EXPECT_EQ(names(), std::vector<std::string>{"file"});
        fs::remove(path);
    }
}

TEST_F(AtomicFiles, AppearAlthoughOtherMakersTidyUpMeanwhile) {
    SlowMaker maker(path);
    std::size_t others = 0;
    while (maker.prepares()) {
        const std::string other = folder + "/other" + std::to_string(others++);
        EXPECT_TRUE(createFileAtomically(other, ownerOnly, writeContent).descriptor);
        maker.goOn();
    }
    maker.goOn();
    EXPECT_EQ(maker.waitForExit(), 0);
    EXPECT_EQ(read(path), content);
    EXPECT_EQ(names().size(), others + 1);
}

} // namespace
