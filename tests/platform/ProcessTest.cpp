#include "foundation/os/Process.h"

#include "foundation/os/RetryOnInterrupt.h"
#include "tests/support/ForkedProcess.h"
#include "tests/support/TestAccounts.h"

#include <cerrno>
#include <climits>
#include <csignal>
#include <functional>
#include <gtest/gtest.h>
#include <pthread.h>
#include <sys/prctl.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <system_error>
#include <thread>
#include <unistd.h>
#include <vector>

namespace {

namespace accounts = tests::accounts;
using foundation::os::processLives;
using foundation::os::retryOnInterrupt;
using tests::Channel;
using tests::ForkedProcess;

/// A child that exits at once, and is not reaped before this object goes.
class Exited {
public:
    Exited()
        : child(::fork()) {
        if (child == -1) {
            throw std::system_error(errno, std::generic_category(), "fork");
        }
        if (child == 0) {
            ::_exit(0);
        }
        siginfo_t information{};
        retryOnInterrupt([&] {
            return ::waitid(P_PID, static_cast<id_t>(child), &information, WEXITED | WNOWAIT);
        });
    }
    ~Exited() { reap(); }
    Exited(const Exited&) = delete;
    Exited& operator=(const Exited&) = delete;

    pid_t pid() const { return child; }

    void reap() {
        if (!isReaped) {
            isReaped = retryOnInterrupt([this] { return ::waitpid(child, nullptr, 0); }) == child;
        }
    }

private:
    pid_t child;
    bool isReaped = false;
};

/// A child of whatever habits that lives until it is told to end, or killed.
void expectToLive(const std::function<void(Channel&)>& prepare) {
    ForkedProcess child([&](Channel& channel) {
        prepare(channel);
        channel.send("ready");
        channel.receive();
    });
    ASSERT_EQ(child.channel().receive(), "ready");
    EXPECT_TRUE(processLives(child.pid()));
    child.kill();
    EXPECT_FALSE(processLives(child.pid()));
}

} // namespace

TEST(ProcessLives, WhileItRuns) {
    EXPECT_TRUE(processLives(::getpid()));
    EXPECT_TRUE(processLives(::getppid()));
    EXPECT_TRUE(processLives(1));
    expectToLive([](Channel&) {});
}

TEST(ProcessLives, NoMoreOnceItHasExitedAlthoughNobodyHasReapedIt) {
    Exited child;
    EXPECT_FALSE(processLives(child.pid()));
    EXPECT_FALSE(processLives(child.pid())) << "asking changes nothing";
    child.reap();
    EXPECT_FALSE(processLives(child.pid()));
}

TEST(ProcessLives, NoMoreOnceItWasKilledAlthoughNobodyHasReapedIt) {
    const pid_t child = ::fork();
    ASSERT_NE(child, -1);
    if (child == 0) {
        for (;;) {
            ::pause();
        }
    }
    EXPECT_TRUE(processLives(child));
    ::kill(child, SIGKILL);
    siginfo_t information{};
    retryOnInterrupt(
        [&] { return ::waitid(P_PID, static_cast<id_t>(child), &information, WEXITED | WNOWAIT); });
    EXPECT_FALSE(processLives(child));
    retryOnInterrupt([&] { return ::waitpid(child, nullptr, 0); });
}

TEST(ProcessLives, NotUnderIdsThatAreNoProcess) {
    EXPECT_FALSE(processLives(0)) << "which would mean the caller's group";
    EXPECT_FALSE(processLives(-1)) << "which would mean everybody";
    EXPECT_FALSE(processLives(-::getpid()));
    EXPECT_FALSE(processLives(-::getpgrp()));
    EXPECT_FALSE(processLives(INT_MIN));
    EXPECT_FALSE(processLives(INT_MAX)) << "more than the kernel ever gives out";
}

TEST(ProcessLives, WhileItIsStopped) {
    ForkedProcess child([](Channel& channel) { channel.receive(); });
    ASSERT_EQ(::kill(child.pid(), SIGSTOP), 0);
    siginfo_t information{};
    retryOnInterrupt([&] {
        return ::waitid(P_PID, static_cast<id_t>(child.pid()), &information, WSTOPPED | WNOWAIT);
    });
    EXPECT_TRUE(processLives(child.pid()));
    ::kill(child.pid(), SIGCONT);
    child.channel().send("end");
    EXPECT_EQ(child.waitForExit(), 0);
}

TEST(ProcessLives, WhateverItCallsItself) {
    for (const char* const name : {"Z", ") Z 1", ")", "a b)\n Z", ""}) {
        expectToLive([name](Channel&) { EXPECT_EQ(::prctl(PR_SET_NAME, name), 0); });
    }
}

TEST(ProcessLives, WhileAnyOfItsThreadsRuns) {
    ForkedProcess child([](Channel& channel) {
        std::thread([&channel, first = ::pthread_self()] {
            ::pthread_join(first, nullptr);
            channel.send("alone");
            channel.receive();
            ::_exit(0);
        }).detach();
        // Ends this thread alone, and unwinds nothing.
        ::syscall(SYS_exit, 0);
    });
    ASSERT_EQ(child.channel().receive(), "alone");
    EXPECT_TRUE(processLives(child.pid()));
}

TEST(ProcessLives, WhosesoeverItIs) {
    if (!accounts::available()) {
        GTEST_SKIP() << accounts::whyNot;
    }
    const Exited exited;
    const pid_t parent = ::getpid();
    ForkedProcess anna([](Channel& channel) {
        accounts::become(accounts::anna);
        channel.send("ready");
        channel.receive();
    });
    ASSERT_EQ(anna.channel().receive(), "ready");
    EXPECT_EQ(tests::runInChild([&] {
                  accounts::become(accounts::carl);
                  EXPECT_TRUE(processLives(parent));
                  EXPECT_TRUE(processLives(anna.pid()));
                  EXPECT_FALSE(processLives(exited.pid()));
              }),
              0);
    anna.channel().send("end");
    EXPECT_EQ(anna.waitForExit(), 0);
}

TEST(ProcessLives, AsEveryThreadSees) {
    const Exited exited;
    std::vector<std::thread> threads;
    for (int i = 0; i < 4; ++i) {
        threads.emplace_back([&exited] {
            for (int turn = 0; turn < 200; ++turn) {
                EXPECT_TRUE(processLives(::getpid()));
                EXPECT_FALSE(processLives(exited.pid()));
            }
        });
    }
    for (auto& thread : threads) {
        thread.join();
    }
}
