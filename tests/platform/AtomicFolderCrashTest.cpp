#include "foundation/os/AtomicFolder.h"
#include "foundation/os/FileIdentity.h"
#include "tests/platform/AtomicFolderTools.h"
#include "tests/support/TracedProcess.h"

#include <cerrno>
#include <functional>
#include <gtest/gtest.h>
#include <optional>
#include <stdexcept>
#include <string>

namespace {

namespace accounts = tests::accounts;
namespace fs = std::filesystem;
using foundation::os::createFolderAtomically;
using foundation::os::identityAt;
using tests::AtomicFolders;
using tests::AtomicFoldersOfUsers;
using tests::TracedProcess;
using Names = std::vector<std::string>;

/// Kills a maker of the folder at each of its steps, and calls `check` after each. Gives up when a
/// check has failed.
void killMakerAtEveryStep(const std::function<void()>& make, const std::function<void()>& check) {
    int step = 0;
    for (bool wasKilled = true; wasKilled && !testing::Test::HasFailure(); ++step) {
        SCOPED_TRACE("killed at step " + std::to_string(step));
        {
            TracedProcess maker(make);
            wasKilled = maker.run(step);
        }
        check();
    }
    EXPECT_GT(step, 5);
}

TEST_F(AtomicFoldersOfUsers, AreThereOrNotWheneverTheirMakerIsKilled) {
    const gid_t friends = accounts::groupId(accounts::friends);
    const auto make = [&] {
        ::umask(0077);
        if (createFolderAtomically(path, 02770, friends) != 0) {
            throw std::runtime_error("The folder was not made.");
        }
    };
    killMakerAtEveryStep(make, [&] {
        if (fs::exists(path)) {
            EXPECT_EQ(tests::permissionsOf(path), 02770U);
            EXPECT_EQ(tests::statusOfFolder(path).st_gid, friends);
            EXPECT_EQ(names(), Names{"folder"});
        } else {
            EXPECT_LE(names().size(), 1U);
            EXPECT_EQ(createFolderAtomically(path, 0700, std::nullopt), 0);
            EXPECT_EQ(names(), Names{"folder"}) << "the next maker tidies up";
        }
        fs::remove(path);
    });
}

TEST_F(AtomicFolders, LeaveNoTraceOfMakersThatWereKilledOnceAnotherOneIsMade) {
    const auto make = [&] { createFolderAtomically(path, 0700, std::nullopt); };
    killMakerAtEveryStep(make, [&] {
        EXPECT_EQ(createFolderAtomically(other, 0700, std::nullopt), 0);
        EXPECT_EQ(names(), fs::exists(path) ? Names({"folder", "other"}) : Names({"other"}));
        fs::remove(path);
        fs::remove(other);
    });
}

TEST_F(AtomicFolders, AppearAlthoughOtherMakersTidyUpMeanwhile) {
    int step = 0;
    for (bool isOnTheWay = true; isOnTheWay; ++step) {
        SCOPED_TRACE("stopped at step " + std::to_string(step));
        TracedProcess maker([&] {
            if (createFolderAtomically(path, 0700, std::nullopt) != 0) {
                throw std::runtime_error("The folder was not made.");
            }
        });
        isOnTheWay = maker.run(step);
        EXPECT_EQ(createFolderAtomically(other, 0700, std::nullopt), 0);
        if (isOnTheWay) {
            constexpr int untilTheEnd = 1'000'000;
            ASSERT_FALSE(maker.run(untilTheEnd));
        }
        EXPECT_EQ(names(), Names({"folder", "other"}));
        fs::remove(path);
        fs::remove(other);
        ASSERT_FALSE(HasFailure());
    }
    EXPECT_GT(step, 5);
}

TEST_F(AtomicFolders, AreTheFirstMakersWhenAnotherOneComesMeanwhile) {
    int step = 0;
    for (bool isOnTheWay = true; isOnTheWay; ++step) {
        SCOPED_TRACE("stopped at step " + std::to_string(step));
        TracedProcess maker([&] {
            const int error = createFolderAtomically(path, 0700, std::nullopt);
            if (error != 0 && error != EEXIST) {
                throw std::runtime_error("The folder was not made.");
            }
        });
        isOnTheWay = maker.run(step);
        const bool wasThere = fs::exists(path);
        EXPECT_EQ(createFolderAtomically(path, 0770, std::nullopt), wasThere ? EEXIST : 0);
        const auto first = identityAt(path);
        if (isOnTheWay) {
            constexpr int untilTheEnd = 1'000'000;
            ASSERT_FALSE(maker.run(untilTheEnd));
        }
        EXPECT_EQ(identityAt(path), first);
        EXPECT_EQ(tests::permissionsOf(path), wasThere ? 0700U : 0770U);
        EXPECT_EQ(names(), Names{"folder"});
        fs::remove(path);
        ASSERT_FALSE(HasFailure());
    }
}

} // namespace
