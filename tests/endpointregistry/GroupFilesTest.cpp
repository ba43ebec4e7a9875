#include "endpointregistry/detail/GroupFiles.h"

#include "endpointregistry/detail/GroupFolder.h"
#include "foundation/os/FileIdentity.h"
#include "tests/endpointregistry/EndpointProcesses.h"
#include "tests/endpointregistry/FoldersTools.h"
#include "tests/endpointregistry/GroupFilesTools.h"
#include "tests/endpointregistry/LockedFileTools.h"
#include "tests/endpointregistry/LoggersReportedFailure.h"
#include "tests/endpointregistry/SharingTools.h"
#include "tests/support/TestAccounts.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstddef>
#include <cstring>
#include <exception>
#include <filesystem>
#include <gtest/gtest.h>
#include <stdexcept>
#include <string>
#include <sys/inotify.h>
#include <sys/stat.h>
#include <system_error>
#include <unistd.h>
#include <vector>

using namespace agent::spf::endpointregistry;
using foundation::os::identityAt;
using tests::as;
using tests::Names;

using namespace tests::groupfiles;

namespace {

namespace accounts = tests::accounts;
namespace fs = std::filesystem;
using accounts::anna;
using accounts::ben;
using accounts::carl;
using accounts::friends;

std::vector<Standing> standingOf(const std::vector<std::string>& paths) {
    return {paths.begin(), paths.end()};
}

/// A file of anna's, in folders of hers, that nobody holds any more.
void leaveAnnasFile() {
    as(anna, [] {
        LockedFile file = groupfiles::tryLock(name, parent, friends);
        EXPECT_TRUE(file.isLocked());
    });
}

class GroupFiles : public tests::SharingTest {};

} // namespace

TEST_F(GroupFiles, MakesWhatIsMissingForTheGroup) {
    as(anna, [] {
        const LockedFile file = groupfiles::createAndTryLock(name, parent, friends);
        EXPECT_TRUE(file.isLocked());
        EXPECT_EQ(file.getTrustee(), friends);
        EXPECT_TRUE(tests::isHeld(path));
        expectStanding(tests::sharedTop, anna, anna, 0777);
        expectStanding(middle, anna, anna, 0777);
        expectStanding(folder, anna, friends, 0770);
        expectStanding(path, anna, friends, 0470);
    });
    EXPECT_EQ(tests::namesIn(folder), Names());
}

TEST_F(GroupFiles, UsesWhatAnotherMemberMadeWithoutChangingIt) {
    leaveAnnasFile();
    const std::vector<std::string> places{tests::sharedTop, middle, folder, path};
    const auto before = standingOf(places);
    as(ben, [] {
        for (const auto factory : {groupfiles::tryLock, groupfiles::getLock}) {
            const LockedFile file = factory(name, parent, friends);
            EXPECT_TRUE(file.isLocked());
            EXPECT_TRUE(tests::isHeld(path));
        }
        const LockedFile taken = groupfiles::createAndTryLock(name, parent, friends);
        EXPECT_FALSE(taken.isLocked());
        EXPECT_EQ(taken.getLockError(), EEXIST);
        const auto isMade = [](std::string_view entry) { return !entry.starts_with('.'); };
        EXPECT_EQ(groupfiles::tryOpenFolder(parent, friends)->names(isMade), Names{name});
    });
    EXPECT_EQ(standingOf(places), before);
}

TEST_F(GroupFiles, LetsAMemberRemoveAnothersFile) {
    leaveAnnasFile();
    as(ben, [] {
        LockedFile file = groupfiles::tryLock(name, parent, friends);
        file.markForDeletion();
    });
    EXPECT_EQ(tests::namesIn(folder), Names());
}

TEST_F(GroupFiles, LetsAMemberMakeFilesInAnothersFolder) {
    leaveAnnasFile();
    as(ben, [] {
        const LockedFile file = groupfiles::createAndTryLock("ben's", parent, friends);
        EXPECT_TRUE(file.isLocked());
        expectStanding(folder + "ben's", ben, friends, 0470);
        expectStanding(folder, anna, friends, 0770);
    });
}

TEST_F(GroupFiles, TellsWhatAnotherMemberHolds) {
    tests::ForkedProcess holder([](tests::Channel& test) {
        accounts::become(anna);
        const LockedFile file = groupfiles::createAndTryLock(name, parent, friends);
        test.send("locked");
        test.receive();
    });
    holder.channel().receive();
    as(ben, [] {
        const LockedFile file = groupfiles::tryLock(name, parent, friends);
        EXPECT_FALSE(file.isLocked());
        EXPECT_EQ(file.getLockError(), EWOULDBLOCK);
    });
    EXPECT_EQ(tests::namesIn(folder), Names{name});
    holder.channel().send("end");
    EXPECT_EQ(holder.waitForExit(), 0);
}

TEST_F(GroupFiles, LeavesThePrimitivesAsStrictAsTheyAre) {
    leaveAnnasFile();
    as(ben, [] {
        const std::string inconsistency = "Endpoint Registry Error: File system inconsistency";
        for (const auto factory :
             {LockedFile::createAndTryLock, LockedFile::tryLock, LockedFile::getLock}) {
            tests::expectThrown<std::runtime_error>([&] { factory(name, parent, friends); },
                                                    inconsistency);
        }
        tests::expectThrown<std::runtime_error>(
            [] { LockedFile::getParentPath(parent, friends, true); }, inconsistency);
        EXPECT_FALSE(tests::isHeld(path));
    });
    expectStanding(path, anna, friends, 0470);
}

TEST_F(GroupFiles, LeavesStickyFoldersAsTheyAre) {
    for (const std::string& where : {tests::sharedTop, middle}) {
        tests::makeFolder(where, 01777);
    }
    ASSERT_EQ(::chmod("/home/Shared", 01777), 0);
    leaveAnnasFile();
    as(ben, [] {
        const LockedFile file = groupfiles::tryLock(name, parent, friends);
        EXPECT_TRUE(file.isLocked());
    });
    for (const std::string& where : {tests::sharedTop, middle}) {
        expectStanding(where, "root", "root", 01777);
    }
    expectStanding(folder, anna, friends, 0770);
}

TEST_F(GroupFiles, FindsNoFolderWhereThereIsNoneAndMakesNone) {
    as(anna, [] {
        EXPECT_FALSE(GroupFolder::tryOpen(parent, friends).has_value());
        EXPECT_FALSE(groupfiles::tryOpenFolder(parent, friends).has_value());
        EXPECT_TRUE(fs::is_empty("/home/Shared"));
        const GroupFolder made = GroupFolder::openOrRestore(parent, friends);
        EXPECT_EQ(made.path(), folder);
        EXPECT_EQ(made.group(), accounts::groupId(friends));
        const auto found = GroupFolder::tryOpen(parent, friends);
        ASSERT_TRUE(found.has_value());
        EXPECT_EQ(identityAt(found->at(".")), identityAt(folder));
    });
}

TEST_F(GroupFiles, IsThePrivateOneWithoutATrustee) {
    as(anna, [] {
        const LockedFile file = groupfiles::createAndTryLock(name, parent, std::string());
        EXPECT_TRUE(file.isLocked());
        EXPECT_EQ(tests::modeOf(tests::privateFolder(parent) + name), 0400U);
        EXPECT_TRUE(LockedFile::isLocked(name, parent, ""));
        EXPECT_TRUE(fs::is_empty("/home/Shared"));
    });
}

TEST_F(GroupFiles, AppearsInOneStepWithItsFinalOwnersAndModes) {
    for (const std::string& where : {tests::sharedTop, middle}) {
        tests::makeFolder(where, 0777);
    }
    const foundation::os::FileDescriptor watch(::inotify_init1(IN_NONBLOCK | IN_CLOEXEC));
    ASSERT_NE(::inotify_add_watch(watch.get(), middle.c_str(), IN_CREATE | IN_MOVED_TO | IN_ATTRIB),
              -1);
    as(anna, [] { GroupFolder::openOrRestore(parent, friends); });
    expectStanding(folder, anna, friends, 0770);
    const std::string last = fs::path(folder).parent_path().filename();
    int appearances = 0;
    alignas(inotify_event) std::array<char, 4096> buffer{};
    const ssize_t size = ::read(watch.get(), buffer.data(), buffer.size());
    for (const char* position = buffer.data(); position < buffer.data() + size;) {
        inotify_event event{};
        std::memcpy(&event, position, sizeof event);
        if (position + sizeof event == last) {
            EXPECT_EQ(event.mask & IN_ATTRIB, 0U);
            ++appearances;
        }
        position += sizeof event + event.len;
    }
    EXPECT_EQ(appearances, 1);
}

TEST_F(GroupFiles, IsMadeOnceByMembersThatComeAtTheSameTime) {
    constexpr std::size_t memberCount = 8;
    constexpr int rounds = 100;
    const tests::StartSignal start;
    const tests::Crew members(memberCount, [&start](std::size_t number, tests::Channel& test) {
        accounts::become(number % 2 == 0 ? anna : ben);
        for (int round = 0; round < rounds; ++round) {
            start.await();
            try {
                const LockedFile file = groupfiles::tryLock(name, parent, friends);
                test.send(file.isLocked() ? "locked" : std::to_string(file.getLockError()));
                test.receive();
            } catch (const std::exception& error) {
                test.send(error.what());
                test.receive();
            }
            test.send("let go");
            test.receive();
        }
    });
    for (int round = 0; round < rounds; ++round) {
        start.give(memberCount);
        const std::vector<std::string> answers = members.hear();
        std::vector<std::string> sorted = answers;
        std::sort(sorted.begin(), sorted.end());
        std::vector<std::string> expected(memberCount - 1, std::to_string(EWOULDBLOCK));
        expected.emplace_back("locked");
        EXPECT_EQ(sorted, expected) << "in round " << round;
        EXPECT_EQ(tests::modeOf(folder), 0770U);
        EXPECT_EQ(tests::namesIn(tests::sharedTop), Names{parent}) << "in round " << round;
        EXPECT_EQ(tests::namesIn(middle).size(), 1U) << "in round " << round;
        members.tell("let go");
        members.hear();
        fs::remove_all(tests::sharedTop);
        members.tell("again");
    }
    members.expectSuccess();
}
