#include "endpointregistry/Endpoint.h"

#include "foundation/os/FileDescriptor.h"
#include "foundation/os/RetryOnInterrupt.h"
#include "tests/endpointregistry/EndpointTools.h"
#include "tests/endpointregistry/LockedFileTools.h"
#include "tests/support/ForkedProcess.h"

#include <array>
#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <functional>
#include <gtest/gtest.h>
#include <optional>
#include <sched.h>
#include <spawn.h>
#include <string>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <system_error>
#include <unistd.h>
#include <utility>
#include <vector>

using namespace agent::spf::endpointregistry;
using foundation::os::FileDescriptor;
using foundation::os::retryOnInterrupt;
using tests::Channel;
using tests::DataPair;
using tests::DataPairs;
using tests::ForkedProcess;

namespace {

const DataPair data("ab", "c");
const std::string tag = "tag";
const std::string key = "key";

class ForkedEndpoint : public tests::RegistryTest {};

/// Expects that nothing happens to an endpoint whatever a child does with its copy.
void expectUnharmedBy(const std::function<void(Endpoint& copy)>& misdeed) {
    Endpoint endpoint(data, tag, key);
    const std::string name = tests::entryFiles().front();
    EXPECT_EQ(tests::runInChild([&] { misdeed(endpoint); }), 0);
    EXPECT_EQ(tests::contentOf(tests::segmentPath(name)), tests::segmentBytes(data));
    EXPECT_TRUE(tests::isHeld(tests::entryPath(name)));
    EXPECT_EQ(tests::runInChild([] { EXPECT_EQ(Endpoint::find(tag, key), data); }), 0);
    EXPECT_THROW(Endpoint(data, tag, key), Endpoint::DuplicateEndpointError);
    endpoint.reset();
    EXPECT_EQ(tests::entryFiles(), std::vector<std::string>());
    EXPECT_EQ(tests::segmentFiles(), std::vector<std::string>());
}

/// A process that outlives the one that made it, and ends with this object. It sends back whatever
/// it is sent.
class Orphan {
public:
    Orphan() {
        std::array<int, 2> ends{};
        // The kernel hands orphans to the next reaper, not to the parent's parent.
        if (::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends.data()) != 0 ||
            ::prctl(PR_SET_CHILD_SUBREAPER, 1) != 0) {
            throw std::system_error(errno, std::generic_category(), "socketpair or prctl");
        }
        testsEnd.reset(ends[0]);
        orphansEnd.reset(ends[1]);
    }
    ~Orphan() {
        if (testsEnd && process > 0) {
            end();
        }
    }
    Orphan(const Orphan&) = delete;
    Orphan& operator=(const Orphan&) = delete;

    /// In the process that is to be left: makes a child with all that it inherits.
    pid_t fork() {
        const pid_t child = ::fork();
        if (child == 0) {
            testsEnd.reset();
            for (char byte = 0; ::read(orphansEnd.get(), &byte, 1) == 1;) {
                retryOnInterrupt([&] { return ::write(orphansEnd.get(), &byte, 1); });
            }
            ::_exit(EXIT_SUCCESS);
        }
        return child;
    }

    /// The same with another program.
    pid_t exec() {
        posix_spawn_file_actions_t actions;
        ::posix_spawn_file_actions_init(&actions);
        ::posix_spawn_file_actions_adddup2(&actions, orphansEnd.get(), STDIN_FILENO);
        ::posix_spawn_file_actions_adddup2(&actions, orphansEnd.get(), STDOUT_FILENO);
        std::string program = "cat";
        const std::array<char*, 2> arguments{program.data(), nullptr};
        pid_t child = -1;
        const int error =
            ::posix_spawnp(&child, program.c_str(), &actions, nullptr, arguments.data(), environ);
        ::posix_spawn_file_actions_destroy(&actions);
        if (error != 0) {
            throw std::system_error(error, std::generic_category(), "posix_spawnp");
        }
        return child;
    }

    /// In the test, which it falls to when its parent is gone. Returns when it answers: a program
    /// that was started may still be on its way, with what it inherited not closed yet.
    void adopt(const std::string& id) {
        process = std::stoi(id);
        // Or the test would wait for its own answer, should the orphan die.
        orphansEnd.reset();
        char byte = '?';
        EXPECT_EQ(::write(testsEnd.get(), &byte, 1), 1);
        EXPECT_EQ(retryOnInterrupt([&] { return ::read(testsEnd.get(), &byte, 1); }), 1);
    }

    bool lives() const {
        siginfo_t status{};
        const auto wait = [&] {
            return ::waitid(P_PID, static_cast<id_t>(process), &status,
                            WEXITED | WNOHANG | WNOWAIT);
        };
        return retryOnInterrupt(wait) == 0 && status.si_pid == 0;
    }
    void end() {
        testsEnd.reset();
        EXPECT_EQ(retryOnInterrupt([this] { return ::waitpid(process, nullptr, 0); }), process);
    }

private:
    FileDescriptor testsEnd;
    FileDescriptor orphansEnd;
    pid_t process = -1;
};

} // namespace

TEST_F(ForkedEndpoint, IsNotWithdrawnByTheChildsReset) {
    expectUnharmedBy([](Endpoint& copy) {
        copy.reset();
        EXPECT_FALSE(copy);
    });
}

TEST_F(ForkedEndpoint, IsNotWithdrawnByTheDestructionOfTheChildsCopy) {
    expectUnharmedBy([](Endpoint& copy) { const Endpoint end(std::move(copy)); });
}

TEST_F(ForkedEndpoint, IsNotWithdrawnByAnAssignmentToTheChildsCopy) {
    expectUnharmedBy([](Endpoint& copy) {
        copy = Endpoint({"other", ""}, tag, "other key");
        EXPECT_EQ(Endpoint::list(), (DataPairs{data, {"other", ""}}));
        copy.reset();
    });
}

TEST_F(ForkedEndpoint, IsNotWithdrawnByTheChildsEnd) {
    expectUnharmedBy([](Endpoint& copy) { EXPECT_TRUE(copy); });
}

TEST_F(ForkedEndpoint, IsFoundByTheChild) {
    expectUnharmedBy([](Endpoint&) {
        EXPECT_EQ(Endpoint::find(tag, key), data);
        EXPECT_THROW(Endpoint(data, tag, key), Endpoint::DuplicateEndpointError);
    });
}

TEST_F(ForkedEndpoint, IsWithdrawnByItsOwnerWhileAChildHasACopy) {
    Endpoint endpoint(data, tag, key);
    ForkedProcess child([](Channel& test) { test.receive(); });
    endpoint.reset();
    EXPECT_EQ(Endpoint::find(tag, key), std::nullopt);
    EXPECT_EQ(tests::entryFiles(), std::vector<std::string>());
    EXPECT_EQ(tests::segmentFiles(), std::vector<std::string>());
    const Endpoint again(data, tag, key);
    child.channel().send("end");
    EXPECT_EQ(child.waitForExit(), 0);
    EXPECT_EQ(Endpoint::find(tag, key), data);
}

TEST_F(ForkedEndpoint, OutlivesItsKilledOwnerUntilTheChildEnds) {
    Orphan orphan;
    ForkedProcess publisher([&orphan](Channel& test) {
        const Endpoint endpoint(data, tag, key);
        test.send(std::to_string(orphan.fork()));
        test.receive();
    });
    orphan.adopt(publisher.channel().receive());
    publisher.kill();
    EXPECT_TRUE(orphan.lives());
    EXPECT_EQ(Endpoint::find(tag, key), data);
    EXPECT_EQ(tests::entryFiles().size(), 1U);
    orphan.end();
    EXPECT_EQ(Endpoint::find(tag, key), std::nullopt);
    EXPECT_EQ(tests::entryFiles(), std::vector<std::string>());
}

TEST_F(ForkedEndpoint, DoesNotOutliveItsKilledOwnerInAProgramThatItStarted) {
    Orphan orphan;
    ForkedProcess publisher([&orphan](Channel& test) {
        const Endpoint endpoint(data, tag, key);
        test.send(std::to_string(orphan.exec()));
        test.receive();
    });
    orphan.adopt(publisher.channel().receive());
    publisher.kill();
    // The starting process runs on a moment before the started one has closed what it inherited.
    const auto limit = std::chrono::steady_clock::now() + std::chrono::minutes(4);
    while (Endpoint::find(tag, key) && std::chrono::steady_clock::now() < limit) {
        ::sched_yield();
    }
    EXPECT_EQ(tests::entryFiles(), std::vector<std::string>());
    EXPECT_EQ(tests::segmentFiles(), std::vector<std::string>());
    EXPECT_TRUE(orphan.lives());
}

TEST_F(ForkedEndpoint, IsClearedAwayThoughItsProcessIdIsInUseAgain) {
    ForkedProcess unrelated([](Channel& test) { test.receive(); });
    const tests::PlantedEntry entry(tests::entryName(data, tag, key, unrelated.pid()),
                                    tests::segmentBytes(data));
    EXPECT_EQ(Endpoint::find(tag, key), std::nullopt);
    EXPECT_FALSE(entry.hasFile());
    EXPECT_FALSE(entry.hasSegment());
}

TEST_F(ForkedEndpoint, IsReadThoughItsProcessIdIsFreeAgain) {
    pid_t gone = 0;
    {
        const ForkedProcess ended([](Channel&) {});
        gone = ended.pid();
    }
    tests::PlantedEntry entry(tests::entryName(data, tag, key, gone), tests::segmentBytes(data));
    entry.hold();
    EXPECT_EQ(Endpoint::find(tag, key), data);
    EXPECT_TRUE(entry.hasFile());
}
