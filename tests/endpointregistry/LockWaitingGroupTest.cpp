#include "endpointregistry/detail/GroupFiles.h"
#include "tests/endpointregistry/GroupFilesTools.h"
#include "tests/endpointregistry/LockWaitingTools.h"
#include "tests/endpointregistry/LockedFileTools.h"
#include "tests/endpointregistry/SharingTools.h"
#include "tests/support/ForkedProcess.h"
#include "tests/support/TestAccounts.h"

#include <cerrno>
#include <chrono>
#include <filesystem>
#include <gtest/gtest.h>
#include <stdexcept>
#include <string>
#include <unistd.h>

using namespace agent::spf::endpointregistry;
using namespace std::chrono_literals;
using namespace tests::groupfiles;
using tests::as;
using tests::Channel;
using tests::ForkedProcess;

namespace {

namespace accounts = tests::accounts;
namespace fs = std::filesystem;
using accounts::anna;
using accounts::ben;
using accounts::carl;
using accounts::friends;

/// A member's process that takes the lock, and keeps it until it is told to let go.
class Member {
public:
    explicit Member(const std::string& user)
        : process([user](Channel& test) {
            accounts::become(user);
            {
                const auto result =
                    groupfiles::getLockWithin(name, parent, friends, Waiting::forOneHolder(1h));
                test.send(result.lock.isLocked() ? "locked" : "not locked");
                test.receive();
            }
            test.send("let go");
        }) {}

    void expectLocked() { EXPECT_EQ(process.channel().receive(), "locked"); }
    void letGo() {
        process.channel().send("let go");
        EXPECT_EQ(process.channel().receive(), "let go");
        EXPECT_EQ(process.waitForExit(), 0);
    }
    pid_t pid() const { return process.pid(); }

private:
    ForkedProcess process;
};

using LockWaitingInAGroup = tests::SharingTest;

} // namespace

TEST_F(LockWaitingInAGroup, EndsWithTheProcessIdOfAnotherUsersProcessThatIsStopped) {
    Member holder(anna);
    holder.expectLocked();
    tests::stop(holder.pid());
    as(ben, [&] {
        const auto result =
            groupfiles::getLockWithin(name, parent, friends, Waiting::forOneHolder(50ms));
        EXPECT_FALSE(result.lock.isLocked());
        EXPECT_EQ(result.lock.getLockError(), EWOULDBLOCK);
        EXPECT_EQ(result.holder, holder.pid());
    });
    EXPECT_TRUE(tests::isStopped(holder.pid()));
    expectStanding(path, anna, friends, 0470);
}

TEST_F(LockWaitingInAGroup, MovesOnToAFileThatReplacedTheOneWaitedFor) {
    Member holder(anna);
    holder.expectLocked();
    const tests::Openings openings(path);
    Member waiter(ben);
    openings.wait();
    fs::rename(path, folder + "elsewhere");
    waiter.expectLocked();
    EXPECT_TRUE(tests::isHeld(path));
    EXPECT_TRUE(tests::isHeld(folder + "elsewhere"));
    waiter.letGo();
    holder.letGo();
}

TEST_F(LockWaitingInAGroup, MovesOnToTheFolderThatTookThePlace) {
    Member holder(anna);
    holder.expectLocked();
    const tests::Openings openings(path);
    Member waiter(ben);
    openings.wait();
    as(carl, [] { fs::rename(folder, middle + "/elsewhere"); });
    holder.letGo();
    waiter.expectLocked();
    EXPECT_TRUE(tests::isHeld(path));
    EXPECT_FALSE(tests::isHeld(middle + "/elsewhere/" + name));
    waiter.letGo();
}

TEST_F(LockWaitingInAGroup, RefusesStrangersAndWhatDoesNotBelongToTheGroup) {
    as(anna, [] {
        EXPECT_TRUE(
            groupfiles::getLockWithin(name, parent, friends, Waiting::once()).lock.isLocked());
    });
    as(carl, [] {
        EXPECT_THROW(groupfiles::getLockWithin(name, parent, friends, Waiting::once()),
                     std::runtime_error);
    });
    fs::permissions(path, fs::perms::owner_read);
    as(anna, [] {
        EXPECT_THROW(groupfiles::getLockWithin(name, parent, friends, Waiting::once()),
                     std::runtime_error);
    });
}
