#include "endpointregistry/detail/GroupFiles.h"

#include "tests/endpointregistry/FoldersTools.h"
#include "tests/endpointregistry/GroupFilesTools.h"
#include "tests/endpointregistry/LockedFileTools.h"
#include "tests/endpointregistry/SharingTools.h"
#include "tests/support/ForkedProcess.h"
#include "tests/support/TestAccounts.h"

#include <cerrno>
#include <fcntl.h>
#include <filesystem>
#include <gtest/gtest.h>
#include <stdexcept>
#include <string>
#include <sys/file.h>
#include <sys/stat.h>
#include <system_error>
#include <unistd.h>

using namespace agent::spf::endpointregistry;
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

/// A file of anna's, in folders of hers, that nobody holds any more.
void leaveAnnasFile() {
    as(anna, [] { EXPECT_TRUE(groupfiles::getLock(name, parent, friends).isLocked()); });
}

void demand(bool isDone, const std::string& what) {
    if (!isDone) {
        throw std::system_error(errno, std::generic_category(), what);
    }
}

/// A process of a member's that holds the lock until it is told to let go.
class Holder {
public:
    explicit Holder(const std::string& user)
        : process([user](Channel& test) {
            accounts::become(user);
            {
                const LockedFile file = groupfiles::getLock(name, parent, friends);
                EXPECT_TRUE(file.isLocked());
                EXPECT_EQ(file.getLockError(), 0);
                test.send("locked");
                test.receive();
            }
            test.send("let go");
        }) {}

    void expectLocked() { EXPECT_EQ(process.channel().receive(), "locked"); }
    void waitUntilItWaits() const {
        tests::waitUntil([this] { return tests::waitsForLock(process.pid()); }, "waiting");
    }
    void letGo() {
        process.channel().send("let go");
        EXPECT_EQ(process.channel().receive(), "let go");
        EXPECT_EQ(process.waitForExit(), 0);
    }

private:
    ForkedProcess process;
};

class GroupFilesGetLock : public tests::SharingTest {
protected:
    /// Expects a member to be refused, and that nothing is changed afterwards.
    static void expectRefused(const std::string& where) {
        const Standing before(where);
        as(ben,
           [] { EXPECT_THROW(groupfiles::getLock(name, parent, friends), std::runtime_error); });
        EXPECT_TRUE(Standing(where) == before);
    }
};

class GroupFilesWaiting : public GroupFilesGetLock {
protected:
    void SetUp() override {
        GroupFilesGetLock::SetUp();
        if (!IsSkipped() && !tests::canSeeWaiting()) {
            GTEST_SKIP() << tests::whyWaitingIsNotSeen;
        }
    }
};

} // namespace

TEST_F(GroupFilesGetLock, WorksWhereTheSharedFolderIsALink) {
    const std::string target = "/home/Target";
    fs::rename("/home/Shared", target);
    fs::create_symlink(target, "/home/Shared");
    leaveAnnasFile();
    leaveAnnasFile();
    as(ben, [] {
        const LockedFile file = groupfiles::getLock(name, parent, friends);
        EXPECT_TRUE(file.isLocked());
        EXPECT_FALSE(groupfiles::tryLock(name, parent, friends).isLocked());
    });
    fs::remove("/home/Shared");
    fs::remove_all(target);
}

TEST_F(GroupFilesWaiting, KeepsOtherMembersOut) {
    leaveAnnasFile();
    Holder holder(anna);
    holder.expectLocked();
    Holder waiter(ben);
    waiter.waitUntilItWaits();
    holder.letGo();
    waiter.expectLocked();
    EXPECT_TRUE(tests::isHeld(path));
    waiter.letGo();
}

TEST_F(GroupFilesWaiting, GivesTheLockOfTheFileThatStandsThere) {
    leaveAnnasFile();
    for (const bool isReplaced : {false, true}) {
        Holder holder(anna);
        holder.expectLocked();
        Holder waiter(ben);
        waiter.waitUntilItWaits();
        fs::remove(path);
        if (isReplaced) {
            leaveAnnasFile();
        }
        holder.letGo();
        waiter.expectLocked();
        ASSERT_TRUE(fs::exists(path));
        EXPECT_TRUE(tests::isHeld(path));
        waiter.letGo();
    }
}

TEST_F(GroupFilesGetLock, WaitsForNoPipe) {
    leaveAnnasFile();
    fs::remove(path);
    demand(::mkfifo(path.c_str(), 0600) == 0, path);
    demand(::chown(path.c_str(), accounts::userId(anna), accounts::groupId(friends)) == 0 &&
               ::chmod(path.c_str(), 0470) == 0,
           path);
    expectRefused(path);
}

TEST_F(GroupFilesGetLock, RefusesAStrangersFolderWithoutWaitingForHisLock) {
    leaveAnnasFile();
    for (const bool isPipe : {false, true}) {
        ForkedProcess stranger([&](Channel& test) {
            accounts::become(carl);
            const std::string elsewhere = middle + "/elsewhere " + std::to_string(isPipe);
            demand(::rename(folder.c_str(), elsewhere.c_str()) == 0, folder);
            tests::makeFolder(folder, 0755);
            if (isPipe) {
                demand(::mkfifo(path.c_str(), 0644) == 0 && ::chmod(path.c_str(), 0644) == 0, path);
            } else {
                tests::makeFile(path, 0644);
            }
            const foundation::os::FileDescriptor file(
                ::open(path.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC));
            demand(::flock(file.get(), LOCK_EX) == 0, path);
            test.send("held");
            test.receive();
        });
        ASSERT_EQ(stranger.channel().receive(), "held");
        ForkedProcess member([](Channel& test) {
            accounts::become(ben);
            EXPECT_THROW(groupfiles::getLock(name, parent, friends), std::runtime_error);
            test.send("refused");
        });
        EXPECT_EQ(member.channel().receive(), "refused");
        EXPECT_EQ(member.waitForExit(), 0);
        stranger.channel().send("end");
        EXPECT_EQ(stranger.waitForExit(), 0);
    }
}
