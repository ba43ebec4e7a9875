#include "endpointregistry/LockedFile.h"

#include "foundation/os/FileIdentity.h"
#include "tests/endpointregistry/LockedFileProcesses.h"
#include "tests/endpointregistry/LockedFileTools.h"
#include "tests/support/ForkedProcess.h"

#include <atomic>
#include <csignal>
#include <gtest/gtest.h>
#include <memory>
#include <optional>
#include <string>
#include <unistd.h>
#include <vector>

using agent::spf::endpointregistry::LockedFile;
using foundation::os::identityAt;

namespace {

void expectWaiting(const tests::ForkedProcess& process) {
    tests::waitUntil([&] { return tests::waitsForLock(process.pid()); },
                     "a process that waits for the lock");
}

/// A process that waits for the lock, tells when it has it, and keeps it until told to end.
class Waiter {
public:
    Waiter(const std::string& name, const std::string& parent)
        : process([&](tests::Channel& test) {
            LockedFile file = LockedFile::getLock(name, parent, "");
            test.send(file.isLocked() ? "locked" : "not locked");
            if (test.receive() == "remove") {
                file.markForDeletion();
            }
        }) {}

    void expectWaiting() { ::expectWaiting(process); }
    void expectLocked() { EXPECT_EQ(process.channel().receive(), "locked"); }
    void end() { finish("end"); }
    void removeAndEnd() { finish("remove"); }
    void kill() { process.kill(); }

private:
    void finish(const std::string& how) {
        process.channel().send(how);
        EXPECT_EQ(process.waitForExit(), 0);
    }

    tests::ForkedProcess process;
};

class LockedFileWaiting : public tests::LockedFileTest {
protected:
    void SetUp() override {
        if (!tests::canSeeWaiting()) {
            GTEST_SKIP() << tests::whyWaitingIsNotSeen;
        }
    }
};

std::atomic<int>* signalsSeen = nullptr;

} // namespace

TEST_F(LockedFileWaiting, LastsUntilTheHolderReleases) {
    const tests::SharedWithChildren<std::atomic<bool>> isReleased;
    tests::ForkedProcess waiter([&](tests::Channel& test) {
        test.receive();
        const LockedFile file = LockedFile::getLock(name, parent, "");
        EXPECT_TRUE(isReleased->load());
        EXPECT_TRUE(file.isLocked());
        EXPECT_TRUE(tests::isHeld(path()));
    });
    std::optional<LockedFile> holder(LockedFile::tryLock(name, parent, ""));
    waiter.channel().send("begin");
    expectWaiting(waiter);

    isReleased->store(true);
    holder.reset();

    EXPECT_EQ(waiter.waitForExit(), 0);
}

TEST_F(LockedFileWaiting, EndsWhenTheHolderIsKilled) {
    Waiter holder(name, parent);
    holder.expectLocked();
    const auto before = identityAt(path());
    Waiter waiter(name, parent);
    waiter.expectWaiting();

    holder.kill();

    waiter.expectLocked();
    EXPECT_EQ(identityAt(path()), before);
    waiter.end();
}

TEST_F(LockedFileWaiting, IsForTheFileThatHasTheNameInTheEnd) {
    Waiter holder(name, parent);
    holder.expectLocked();
    Waiter waiter(name, parent);
    waiter.expectWaiting();

    holder.removeAndEnd();

    waiter.expectLocked();
    EXPECT_TRUE(LockedFile::exists(name, parent, ""));
    EXPECT_TRUE(tests::isHeld(path()));
    EXPECT_FALSE(LockedFile::tryLock(name, parent, "").isLocked());
    waiter.end();
    EXPECT_FALSE(tests::isHeld(path()));
}

TEST_F(LockedFileWaiting, MovesOnToAFileThatReplacedTheOneWaitedFor) {
    Waiter holder(name, parent);
    holder.expectLocked();
    Waiter waiter(name, parent);
    waiter.expectWaiting();

    LockedFile::destruct(name, parent, "");
    std::optional<LockedFile> replacement(LockedFile::createAndTryLock(name, parent, ""));
    ASSERT_TRUE(replacement->isLocked());
    holder.kill();
    waiter.expectWaiting();
    replacement->makePersistent();
    const auto before = identityAt(path());
    replacement.reset();

    waiter.expectLocked();
    EXPECT_EQ(identityAt(path()), before);
    EXPECT_TRUE(tests::isHeld(path()));
    waiter.end();
}

TEST_F(LockedFileWaiting, LeavesNothingBehindWhenTheWaitingAreKilled) {
    Waiter holder(name, parent);
    holder.expectLocked();
    const auto before = identityAt(path());
    std::vector<std::unique_ptr<tests::ForkedProcess>> waiters;
    for (int i = 0; i < 4; ++i) {
        waiters.push_back(std::make_unique<tests::ForkedProcess>([this](tests::Channel&) {
            EXPECT_TRUE(LockedFile::getLock(name, parent, "").isLocked());
        }));
        expectWaiting(*waiters.back());
    }

    waiters[0]->kill();
    waiters[2]->kill();
    EXPECT_TRUE(LockedFile::isLocked(name, parent, ""));
    holder.end();

    EXPECT_EQ(waiters[1]->waitForExit(), 0);
    EXPECT_EQ(waiters[3]->waitForExit(), 0);
    EXPECT_FALSE(tests::isHeld(path()));
    EXPECT_EQ(identityAt(path()), before);
}

TEST_F(LockedFileWaiting, GoesOnAfterASignal) {
    const tests::SharedWithChildren<std::atomic<int>> seen;
    signalsSeen = &*seen;
    tests::ForkedProcess waiter([&](tests::Channel& test) {
        test.receive();
        struct sigaction action {};
        action.sa_handler = [](int) { ++*signalsSeen; };
        ASSERT_EQ(::sigaction(SIGUSR1, &action, nullptr), 0);
        EXPECT_TRUE(LockedFile::getLock(name, parent, "").isLocked());
        EXPECT_EQ(seen->load(), 2);
    });
    std::optional<LockedFile> holder(LockedFile::tryLock(name, parent, ""));
    waiter.channel().send("begin");
    for (int signals = 1; signals <= 2; ++signals) {
        expectWaiting(waiter);
        ASSERT_EQ(::kill(waiter.pid(), SIGUSR1), 0);
        tests::waitUntil([&] { return seen->load() == signals; }, "a signal that is handled");
    }
    expectWaiting(waiter);
    holder.reset();

    EXPECT_EQ(waiter.waitForExit(), 0);
}
