#include "endpointregistry/EndpointMonitor.h"

#include "endpointregistry/LockedFile.h"
#include "tests/endpointregistry/EndpointMonitorTools.h"
#include "tests/endpointregistry/LockedFileTools.h"
#include "tests/endpointregistry/SharingTools.h"
#include "tests/support/ForkedProcess.h"
#include "tests/support/TestAccounts.h"

#include <chrono>
#include <filesystem>
#include <grp.h>
#include <gtest/gtest.h>
#include <memory>
#include <optional>
#include <stdexcept>
#include <string>
#include <sys/mount.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>
#include <vector>

using namespace agent::spf::endpointregistry;
using tests::as;
using tests::await;
using tests::DataPair;
using tests::DataPairs;
using tests::MonitorEvent;
using tests::MonitorEvents;
using tests::Sharer;
using tests::accounts::anna;
using tests::accounts::ben;
using tests::accounts::carl;
using tests::accounts::family;
using tests::accounts::friends;

namespace fs = std::filesystem;

namespace {

const DataPair data("ab", "c");
const std::string tag = "tag";
const std::string key = "key";

MonitorEvent sharedBy(const Sharer& sharer, const std::string& trustee = friends) {
    return tests::appearanceOf(data, tag, key, sharer.pid(), trustee);
}

class MonitoredGroup : public tests::SharingTest {};

} // namespace

TEST_F(MonitoredGroup, IsToldOfWhatItsMembersShare) {
    EndpointMonitor monitor("", {friends});
    Sharer sharer(anna, data, tag, key, {});
    EXPECT_EQ(monitor.take(), MonitorEvents());
    sharer.add({friends});
    EXPECT_EQ(await(monitor, 1), MonitorEvents{sharedBy(sharer)});
    EXPECT_EQ(monitor.find(tag, key), data);
    sharer.remove({friends});
    EXPECT_EQ(await(monitor, 1), MonitorEvents{tests::disappearanceOf(sharedBy(sharer))});
    EXPECT_EQ(monitor.find(tag, key), std::nullopt);
}

TEST_F(MonitoredGroup, IsToldWhenAMemberIsKilled) {
    EndpointMonitor monitor("", {friends, family});
    for (int round = 0; round < 50; ++round) {
        Sharer sharer(anna, data, tag, key, {friends, family});
        ASSERT_EQ(await(monitor, 2),
                  (MonitorEvents{sharedBy(sharer, family), sharedBy(sharer, friends)}));
        ASSERT_EQ(monitor.find(tag, key), data);
        sharer.kill();
        ASSERT_EQ(monitor.find(tag, key), std::nullopt) << "in round " << round;
        const MonitorEvents events = await(monitor, 2);
        ASSERT_EQ(events.size(), 2U);
        ASSERT_EQ(events.front().kind, MonitorEvent::Kind::disappeared);
    }
    EXPECT_EQ(tests::sharedEntries(friends), tests::Names());
}

TEST_F(MonitoredGroup, AMonitorWaitsOnceForOneWhoKeepsTheTableLocked) {
    std::vector<std::unique_ptr<Sharer>> sharers;
    for (const std::string name : {"one", "two", "three"}) {
        sharers.push_back(std::make_unique<Sharer>(anna, DataPair("data of", name), tag, name,
                                                   tests::Trustees{friends}));
    }
    {
        LockedFile lock = LockedFile::getLock("baseLock", tests::tableParent, friends);
        lock.makePersistent();
        as(ben, [&sharers] {
            EndpointMonitor monitor(tag, {friends});
            EXPECT_EQ(monitor.take().size(), sharers.size());
            // Whoever waits sleeps for 2 ms at a time, as a rule, and this is 2 s of waiting.
            constexpr long sleepsOfTwoWaits = 2'000;
            rusage usage{};
            ASSERT_EQ(::getrusage(RUSAGE_SELF, &usage), 0);
            const long sleeps =
                usage.ru_nvcsw; // NOLINT(*-pro-type-union-access): as the C library declares it
            EXPECT_LT(sleeps, sleepsOfTwoWaits);
        });
    }
    for (const auto& sharer : sharers) {
        sharer->end();
    }
}

TEST_F(MonitoredGroup, AndOnesOwnEntriesAreSearchedInTheOrderOfTheTrustees) {
    EndpointMonitor monitor("", {"", friends, family});
    Sharer sharer(anna, data, tag, key, {friends});
    Sharer other(anna, {"other", ""}, tag, key + "2", {family, friends});
    EXPECT_EQ(monitor.find(tag, key), data);
    Endpoint own({"own", ""}, tag, key);
    EXPECT_EQ(monitor.find(tag, key), DataPair("own", ""));
    EXPECT_EQ(monitor.list(), (DataPairs{data, {"other", ""}, {"own", ""}}));
    EXPECT_EQ(monitor.filter(tag), Endpoint::filter(tag, {"", friends, family}));
    own.reset();
    EXPECT_EQ(monitor.find(tag, key), data);
}

TEST_F(MonitoredGroup, WhoseMembersShareTheSameKeyIsSearchedInTheOrderOfTheLookups) {
    EndpointMonitor monitor("", {friends});
    for (int round = 0; round < 4; ++round) {
        const bool isAnnaFirst = round % 2 == 0;
        const std::string number = std::to_string(round);
        const Sharer first(isAnnaFirst ? anna : ben, {"first", number}, tag, key, {friends});
        const Sharer second(isAnnaFirst ? ben : anna, {"second", number}, tag, key, {friends});
        EXPECT_EQ(monitor.filter(tag), (DataPairs{{"first", number}, {"second", number}}));
        EXPECT_EQ(monitor.find(tag, key), Endpoint::find(tag, key, {friends}));
        EndpointMonitor late("", {friends});
        EXPECT_EQ(late.find(tag, key), Endpoint::find(tag, key, {friends}));
    }
}

TEST_F(MonitoredGroup, MayHaveNoFolderYet) {
    EXPECT_FALSE(fs::exists(tests::sharedTop));
    EndpointMonitor monitor("", {friends});
    tests::expectQuiet(monitor);
    Sharer sharer(anna, data, tag, key, {friends});
    EXPECT_TRUE(tests::isReadable(monitor));
    EXPECT_EQ(await(monitor, 1), MonitorEvents{sharedBy(sharer)});
}

TEST_F(MonitoredGroup, WithoutASharedFolderIsAnErrorUntilThereIsOne) {
    as(ben, [] {
        EndpointMonitor monitor("", {friends});
        EXPECT_NO_THROW(monitor.take());
    });
    tests::ForkedProcess watcher([](tests::Channel& test) {
        tests::accounts::become(ben);
        EndpointMonitor monitor("", {friends});
        test.send("watches");
        test.receive();
        EXPECT_THROW(monitor.take(), std::runtime_error);
        EXPECT_THROW(monitor.find(tag, key), std::runtime_error);
        EXPECT_THROW(EndpointMonitor("", {friends}), std::runtime_error);
        test.send("failed");
        test.receive();
        EXPECT_EQ(await(monitor, 1).size(), 1U);
        EXPECT_EQ(monitor.find(tag, key), data);
    });
    watcher.channel().receive();
    fs::remove_all("/home/Shared");
    watcher.channel().send("removed");
    watcher.channel().receive();
    tests::provideSharedFolder();
    Sharer sharer(anna, data, tag, key, {friends});
    watcher.channel().send("provided");
    EXPECT_EQ(watcher.waitForExit(), 0);
}

TEST_F(MonitoredGroup, IsNotWatchedByAStranger) {
    const Sharer sharer(anna, data, tag, key, {friends});
    as(carl, [] {
        EXPECT_THROW(Endpoint::find(tag, key, {friends}), std::runtime_error);
        EXPECT_THROW(EndpointMonitor("", {friends}), std::runtime_error);
    });
}

TEST_F(MonitoredGroup, WhoseFolderAStrangerMadeIsAnErrorUntilItIsRemoved) {
    const std::string folder = tests::sharedFolder(tests::entryParent, friends);
    tests::ForkedProcess watcher([](tests::Channel& test) {
        tests::accounts::become(ben);
        EndpointMonitor monitor("", {"", friends});
        EXPECT_EQ(monitor.take(), MonitorEvents());
        test.send("watches");
        test.receive();
        EXPECT_THROW(Endpoint::find(tag, key, {friends}), std::runtime_error);
        EXPECT_THROW(monitor.wait(std::chrono::minutes(4)), std::runtime_error);
        EXPECT_THROW(monitor.find(tag, key), std::runtime_error);
        EXPECT_THROW(EndpointMonitor("", {friends}), std::runtime_error);
        test.send("failed");
        test.receive();
        EXPECT_EQ(await(monitor, 1).size(), 1U);
        EXPECT_EQ(monitor.find(tag, key), data);
    });
    watcher.channel().receive();
    as(carl, [&] {
        fs::create_directories(folder);
        ASSERT_EQ(::chmod(folder.c_str(), 0777), 0);
        fs::permissions(tests::sharedTop, fs::perms::all);
        fs::permissions(tests::sharedTop + "/" + tests::entryParent, fs::perms::all);
    });
    watcher.channel().send("planted");
    watcher.channel().receive();
    fs::remove_all(folder);
    Sharer sharer(anna, data, tag, key, {friends});
    watcher.channel().send("removed");
    EXPECT_EQ(watcher.waitForExit(), 0);
}

TEST_F(MonitoredGroup, WhoseFoldersAreExchangedIsTheOneThatTheLookupsSee) {
    const fs::path away = tests::sharedTop + "/away";
    EndpointMonitor monitor("", {friends});
    Sharer sharer(anna, data, tag, key, {friends});
    EXPECT_EQ(await(monitor, 1), MonitorEvents{sharedBy(sharer)});
    fs::rename(tests::sharedTop + "/" + tests::entryParent, away);
    EXPECT_TRUE(tests::isReadable(monitor));
    EXPECT_EQ(Endpoint::find(tag, key, {friends}), std::nullopt);
    EXPECT_EQ(monitor.take(), MonitorEvents{tests::disappearanceOf(sharedBy(sharer))});
    fs::rename(away, tests::sharedTop + "/" + tests::entryParent);
    EXPECT_TRUE(tests::isReadable(monitor));
    EXPECT_EQ(monitor.take(), MonitorEvents{sharedBy(sharer)});
    EXPECT_EQ(Endpoint::find(tag, key, {friends}), data);
}

TEST_F(MonitoredGroup, ThatTheWatchingProcessLeavesIsAnErrorOnceSomethingHappens) {
    Sharer sharer(anna, data, tag, key, {friends});
    tests::ForkedProcess watcher([](tests::Channel& test) {
        // With the rights of the group, which it can give up.
        const gid_t group = tests::accounts::groupId(friends);
        ASSERT_EQ(::setgroups(1, &group), 0);
        ASSERT_EQ(::setresuid(tests::accounts::userId(ben), tests::accounts::userId(ben), 0), 0);
        EndpointMonitor monitor("", {friends});
        EXPECT_EQ(monitor.take().size(), 1U);
        ASSERT_EQ(::setresuid(0, 0, 0), 0);
        ASSERT_EQ(::setgroups(0, nullptr), 0);
        ASSERT_EQ(::setresuid(tests::accounts::userId(ben), tests::accounts::userId(ben), 0), 0);
        EXPECT_THROW(Endpoint::find(tag, key, {friends}), std::runtime_error);
        test.send("left");
        EXPECT_THROW(monitor.wait(std::chrono::minutes(4)), std::runtime_error);
        EXPECT_THROW(monitor.find(tag, key), std::runtime_error);
    });
    watcher.channel().receive();
    sharer.remove({friends});
    EXPECT_EQ(watcher.waitForExit(), 0);
}

TEST_F(MonitoredGroup, IsWatchedByItsMembers) {
    tests::ForkedProcess watcher([](tests::Channel& test) {
        tests::accounts::become(ben);
        EndpointMonitor monitor("", {"", friends});
        test.send("watches");
        for (int round = 0; round < 20; ++round) {
            ASSERT_EQ(await(monitor, 1).size(), 1U);
            ASSERT_EQ(monitor.find(tag, key), data);
            test.send("appeared");
            ASSERT_EQ(test.receive(), "killed");
            ASSERT_EQ(monitor.find(tag, key), std::nullopt);
            ASSERT_EQ(await(monitor, 1).size(), 1U);
            test.send("disappeared");
        }
    });
    watcher.channel().receive();
    for (int round = 0; round < 20; ++round) {
        Sharer sharer(anna, data, tag, key, {friends});
        ASSERT_EQ(watcher.channel().receive(), "appeared");
        sharer.kill();
        watcher.channel().send("killed");
        ASSERT_EQ(watcher.channel().receive(), "disappeared");
    }
    EXPECT_EQ(watcher.waitForExit(), 0);
}

namespace {

/// Lays a file system over the shared folder that numbers its files anew, until the object goes.
class Overlay {
public:
    Overlay() {
        for (const char* const layer : {"/dev/shm/lower", "/dev/shm/upper", "/dev/shm/work"}) {
            fs::create_directory(layer);
        }
        isMounted = ::mount("overlay", "/home/Shared", "overlay", MS_NOSUID | MS_NODEV,
                            "lowerdir=/dev/shm/lower,upperdir=/dev/shm/upper,"
                            "workdir=/dev/shm/work") == 0 &&
                    ::chmod("/home/Shared", S_ISVTX | ACCESSPERMS) == 0;
    }
    Overlay(const Overlay&) = delete;
    Overlay& operator=(const Overlay&) = delete;
    ~Overlay() {
        if (isMounted) {
            ::umount2("/home/Shared", MNT_DETACH);
        }
    }

    explicit operator bool() const { return isMounted; }

private:
    bool isMounted = false;
};

} // namespace

TEST_F(MonitoredGroup, MayHaveItsFolderOnAnOverlaidFileSystem) {
    const Overlay overlay;
    if (!overlay) {
        GTEST_SKIP() << "needs an overlay file system";
    }
    EndpointMonitor monitor("", {friends});
    for (int round = 0; round < 20; ++round) {
        Sharer sharer(anna, data, tag, key, {friends});
        ASSERT_EQ(await(monitor, 1), MonitorEvents{sharedBy(sharer)});
        sharer.kill();
        ASSERT_EQ(monitor.find(tag, key), std::nullopt) << "in round " << round;
        ASSERT_EQ(await(monitor, 1), MonitorEvents{tests::disappearanceOf(sharedBy(sharer))});
    }
}
