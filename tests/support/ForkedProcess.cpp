#include "tests/support/ForkedProcess.h"

#include "foundation/os/RetryOnInterrupt.h"

#include <array>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <gtest/gtest.h>
#include <iostream>
#include <poll.h>
#include <stdexcept>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <system_error>
#include <unistd.h>
#include <utility>

namespace tests {

namespace {

using foundation::os::FileDescriptor;
using foundation::os::retryOnInterrupt;

// Many processes on few cores, with others' work beside them, may need minutes.
constexpr int limitInMilliseconds = 240'000;

[[noreturn]] void fail(const std::string& what) {
    throw std::system_error(errno, std::generic_category(), what);
}

/// Waits until the descriptor can be read or its other side is gone; false when the limit is over.
bool waitFor(const FileDescriptor& descriptor) {
    pollfd request{descriptor.get(), POLLIN, 0};
    const int ready = retryOnInterrupt([&] { return ::poll(&request, 1, limitInMilliseconds); });
    if (ready == -1) {
        fail("poll");
    }
    return ready == 1;
}

// Comes before every message, since an empty packet reads like the end of the conversation.
constexpr char mark = '.';

/// How many expectations of the running test failed so far.
int failures() {
    const testing::TestInfo* test = testing::UnitTest::GetInstance()->current_test_info();
    const testing::TestResult& result =
        test != nullptr ? *test->result() : testing::UnitTest::GetInstance()->ad_hoc_test_result();
    int count = 0;
    for (int i = 0; i < result.total_part_count(); ++i) {
        count += result.GetTestPartResult(i).failed() ? 1 : 0;
    }
    return count;
}

void flushOutput() {
    std::cout.flush();
    static_cast<void>(std::fflush(nullptr));
}

[[noreturn]] void runChild(const std::function<void(Channel&)>& body, FileDescriptor socket) {
    const int failuresBefore = failures();
    int status = EXIT_FAILURE;
    try {
        Channel channel(std::move(socket));
        body(channel);
        status = failures() == failuresBefore ? EXIT_SUCCESS : EXIT_FAILURE;
    } catch (const std::exception& error) {
        std::cerr << "The child process ended with an exception: " << error.what() << '\n';
    } catch (...) {
        std::cerr << "The child process ended with an unknown exception.\n";
    }
    flushOutput();
    // Not exit: what the test program registered to run at its end is the parent's to run.
    ::_exit(status);
}

} // namespace

Channel::Channel(FileDescriptor connection)
    : socket(std::move(connection)) {
}

void Channel::send(const std::string& message) {
    const std::string packet = mark + message;
    if (retryOnInterrupt([&] {
            return ::send(socket.get(), packet.data(), packet.size(), MSG_NOSIGNAL);
        }) == -1) {
        fail("send");
    }
}

std::string Channel::receive() {
    if (!waitFor(socket)) {
        throw std::runtime_error("The other process sent nothing.");
    }
    const ssize_t size =
        retryOnInterrupt([&] { return ::recv(socket.get(), nullptr, 0, MSG_PEEK | MSG_TRUNC); });
    if (size == 0 || (size == -1 && errno == ECONNRESET)) {
        throw std::runtime_error("The other process is gone.");
    }
    if (size == -1) {
        fail("recv");
    }
    std::string packet(static_cast<std::size_t>(size), '\0');
    if (retryOnInterrupt([&] { return ::recv(socket.get(), packet.data(), packet.size(), 0); }) !=
        size) {
        fail("recv");
    }
    return packet.substr(1);
}

ForkedProcess::ForkedProcess(const std::function<void(Channel&)>& body)
    : ownEnd(FileDescriptor()) {
    std::array<int, 2> ends{};
    if (::socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, ends.data()) != 0) {
        fail("socketpair");
    }
    FileDescriptor parentsEnd(ends[0]);
    FileDescriptor childsEnd(ends[1]);

    // What is still buffered would be printed by both.
    flushOutput();
    // The kernel takes the forking thread for the parent, and only the main thread lives as long
    // as the process.
    const bool endsWithParent = ::gettid() == ::getpid();
    const pid_t parent = ::getpid();
    child = ::fork();
    if (child == -1) {
        fail("fork");
    }
    if (child == 0) {
        parentsEnd.reset();
        if (endsWithParent && (::prctl(PR_SET_PDEATHSIG, SIGKILL) != 0 || ::getppid() != parent)) {
            ::_exit(EXIT_FAILURE);
        }
        runChild(body, std::move(childsEnd));
    }
    ownEnd = Channel(std::move(parentsEnd));
}

ForkedProcess::~ForkedProcess() {
    kill();
}

pid_t ForkedProcess::pid() const {
    return child;
}

Channel& ForkedProcess::channel() {
    return ownEnd;
}

void ForkedProcess::kill() {
    if (!isReaped) {
        ::kill(child, SIGKILL);
        retryOnInterrupt([this] { return ::waitpid(child, nullptr, 0); });
        isReaped = true;
    }
}

int ForkedProcess::waitForExit() {
    if (isReaped) {
        throw std::logic_error("The child process was waited for already.");
    }
    const FileDescriptor process(static_cast<int>(::syscall(SYS_pidfd_open, child, 0)));
    if (!process) {
        fail("pidfd_open");
    }
    if (!waitFor(process)) {
        throw std::runtime_error("The child process did not end.");
    }
    int status = 0;
    if (retryOnInterrupt([&] { return ::waitpid(child, &status, 0); }) == -1) {
        fail("waitpid");
    }
    isReaped = true;
    if (!WIFEXITED(status)) {
        throw std::runtime_error("The child process died of signal " +
                                 std::to_string(WTERMSIG(status)) + ".");
    }
    return WEXITSTATUS(status);
}

int runInChild(const std::function<void()>& body) {
    ForkedProcess child([&body](Channel&) { body(); });
    return child.waitForExit();
}

} // namespace tests
