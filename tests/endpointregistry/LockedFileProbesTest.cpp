#include "endpointregistry/LockedFile.h"

#include "tests/endpointregistry/LockedFileProcesses.h"
#include "tests/endpointregistry/LockedFileTools.h"

#include <atomic>
#include <cstddef>
#include <functional>
#include <gtest/gtest.h>
#include <string>

using agent::spf::endpointregistry::LockedFile;

namespace {

class ProbedLockedFile : public tests::LockedFileTest {
protected:
    /// Expects the file of that trustee to look free to every one of so many processes.
    void expectFree(std::size_t processes, const std::string& trustee) {
        const tests::SharedWithChildren<std::atomic<int>> answeredLocked;
        const tests::SharedWithChildren<tests::Barrier> barrier;
        barrier->expect(static_cast<unsigned>(processes));
        tests::Processes(processes, [&](std::size_t) {
            barrier->wait();
            for (int probe = 0; probe < 5000; ++probe) {
                if (LockedFile::isLocked(name, parent, trustee)) {
                    ++*answeredLocked;
                }
            }
        }).expectSuccess();
        EXPECT_EQ(*answeredLocked, 0);
    }

    /// Runs the body while three processes probe the file all the time.
    void whileProbed(const std::function<void()>& body) {
        const tests::SharedWithChildren<std::atomic<bool>> isOver;
        const tests::SharedWithChildren<std::atomic<int>> probes;
        tests::Processes probing(3, [&](std::size_t) {
            while (!*isOver) {
                LockedFile::isLocked(name, parent, "");
                ++*probes;
            }
        });
        tests::waitUntil(
            [&] {
                body();
                return HasFailure() || *probes >= 50'000;
            },
            "tens of thousands of probes");
        *isOver = true;
        probing.expectSuccess();
    }
};

} // namespace

TEST_F(ProbedLockedFile, LooksFreeToTwoAtOnce) {
    LockedFile::tryLock(name, parent, "");

    expectFree(2, "");
}

TEST_F(ProbedLockedFile, LooksFreeToEightAtOnce) {
    LockedFile::tryLock(name, parent, "");

    expectFree(8, "");
}

TEST_F(ProbedLockedFile, LooksFreeToTheTrusteeToo) {
    tests::provideSharedFolder();
    LockedFile::tryLock(name, parent, tests::ownGroup());

    expectFree(4, tests::ownGroup());
}

TEST_F(ProbedLockedFile, CanBeLockedAllTheSame) {
    LockedFile::tryLock(name, parent, "");

    whileProbed([this] {
        for (int i = 0; i < 1000; ++i) {
            ASSERT_TRUE(LockedFile::tryLock(name, parent, "").isLocked()) << i;
        }
    });
}

TEST_F(ProbedLockedFile, CanBeMadeAllTheSame) {
    whileProbed([this] {
        for (int i = 0; i < 1000; ++i) {
            ASSERT_TRUE(LockedFile::createAndTryLock(name, parent, "").isLocked()) << i;
        }
    });
}

TEST_F(ProbedLockedFile, CanBeWaitedForAllTheSame) {
    whileProbed([this] {
        for (int i = 0; i < 1000; ++i) {
            ASSERT_TRUE(LockedFile::getLock(name, parent, "").isLocked()) << i;
        }
    });
}

TEST_F(ProbedLockedFile, NeverLooksFreeWhileItIsHeld) {
    const LockedFile file = LockedFile::tryLock(name, parent, "");
    tests::Processes(3, [this](std::size_t) {
        for (int probe = 0; probe < 5000 && !HasFailure(); ++probe) {
            EXPECT_TRUE(LockedFile::isLocked(name, parent, ""));
        }
    }).expectSuccess();
}
