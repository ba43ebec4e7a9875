#include "endpointregistry/detail/GroupFiles.h"

#include "endpointregistry/detail/GroupFolder.h"
#include "endpointregistry/detail/LockedFileImpl.h"
#include "tests/endpointregistry/FoldersTools.h"
#include "tests/endpointregistry/LockedFileTools.h"
#include "tests/endpointregistry/SharingTools.h"
#include "tests/support/ForkedProcess.h"
#include "tests/support/TestAccounts.h"

#include <cerrno>
#include <chrono>
#include <gtest/gtest.h>
#include <stdexcept>
#include <string>
#include <sys/stat.h>
#include <system_error>
#include <unistd.h>
#include <utility>

using namespace agent::spf::endpointregistry;
using tests::as;
using tests::Channel;
using tests::ForkedProcess;

namespace {

namespace accounts = tests::accounts;
using accounts::anna;
using accounts::ben;
using accounts::carl;
using accounts::friends;

const std::string parent = "joined";
const std::string name = "file";
const std::string folder = tests::sharedFolder(parent, friends);
const std::string path = folder + name;
const std::string elsewhere = tests::sharedTop + "/" + parent + "/elsewhere/";

/// Whoever may add to the folders above a group's can put that one elsewhere, while members wait
/// for a lock in it.
class GroupFilesMoved : public tests::SharingTest {
protected:
    void SetUp() override {
        SharingTest::SetUp();
        if (!IsSkipped() && !tests::canSeeWaiting()) {
            GTEST_SKIP() << tests::whyWaitingIsNotSeen;
        }
    }

    /// A process of a member's that holds the lock until it is told to let go.
    static void hold(Channel& test, const std::string& user) {
        accounts::become(user);
        {
            LockedFile file = groupfiles::getLock(name, parent, friends);
            EXPECT_TRUE(file.isLocked());
            file.makePersistent();
            test.send("locked");
            test.receive();
        }
        test.send("let go");
    }

    static void moveFolder() {
        as(carl, [] {
            if (::rename(folder.c_str(), elsewhere.c_str()) != 0) {
                throw std::system_error(errno, std::generic_category(), folder);
            }
        });
    }
};

} // namespace

TEST_F(GroupFilesMoved, LooksForTheFolderAnewThatWasRemovedBeforeTheFileWasMade) {
    as(anna, [] {
        GroupFolder opened = GroupFolder::openOrCreate(parent, friends);
        ASSERT_EQ(::rmdir(folder.c_str()), 0);
        const LockedFile::Impl impl(name, std::move(opened), friends, false,
                                    Waiting::forOneHolder(std::chrono::hours(1)), {});
        EXPECT_FALSE(impl.isLocked());
        EXPECT_FALSE(impl.isStillNamed());
        EXPECT_TRUE(groupfiles::getLock(name, parent, friends).isLocked());
    });
}

TEST_F(GroupFilesMoved, GivesNoLockWhereNobodyElseLooksForIt) {
    ForkedProcess first([](Channel& test) { hold(test, anna); });
    first.channel().receive();
    ForkedProcess second([](Channel& test) { hold(test, ben); });
    tests::waitUntil([&] { return tests::waitsForLock(second.pid()); }, "waiting for the lock");
    moveFolder();
    first.channel().send("let go");
    first.channel().receive();
    ASSERT_EQ(second.channel().receive(), "locked");
    EXPECT_FALSE(tests::isHeld(elsewhere + name));
    ASSERT_EQ(::access(path.c_str(), F_OK), 0) << "nobody else meets this lock";
    EXPECT_TRUE(tests::isHeld(path));
    EXPECT_EQ(tests::modeOf(folder), 0770U);
    as(anna, [] {
        const LockedFile file = groupfiles::tryLock(name, parent, friends);
        EXPECT_FALSE(file.isLocked());
        EXPECT_EQ(file.getLockError(), EWOULDBLOCK);
    });
    second.channel().send("let go");
    EXPECT_EQ(second.waitForExit(), 0);
    EXPECT_EQ(first.waitForExit(), 0);
}

TEST_F(GroupFilesMoved, GivesTheLockInTheFolderThatTookThePlace) {
    ForkedProcess first([](Channel& test) { hold(test, anna); });
    first.channel().receive();
    ForkedProcess second([](Channel& test) { hold(test, ben); });
    tests::waitUntil([&] { return tests::waitsForLock(second.pid()); }, "waiting for the lock");
    moveFolder();
    ForkedProcess third([](Channel& test) { hold(test, anna); });
    third.channel().receive();
    EXPECT_TRUE(tests::isHeld(path));
    first.channel().send("let go");
    first.channel().receive();
    EXPECT_EQ(first.waitForExit(), 0);
    // Now it waits for the third, in the new folder.
    tests::waitUntil(
        [&] { return !tests::isHeld(elsewhere + name) && tests::waitsForLock(second.pid()); },
        "waiting for the other lock");
    third.channel().send("let go");
    third.channel().receive();
    EXPECT_EQ(second.channel().receive(), "locked");
    EXPECT_TRUE(tests::isHeld(path));
    second.channel().send("let go");
    EXPECT_EQ(second.waitForExit(), 0);
    EXPECT_EQ(third.waitForExit(), 0);
}
