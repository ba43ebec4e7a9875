#include "endpointregistry/EndpointMonitor.h"

#include "endpointregistry/detail/EntryFolder.h"
#include "foundation/os/DirectoryStream.h"
#include "foundation/os/FileDescriptor.h"
#include "tests/endpointregistry/EndpointMonitorTools.h"
#include "tests/endpointregistry/EndpointTools.h"
#include "tests/endpointregistry/LockedFileTools.h"
#include "tests/support/ForkedProcess.h"
#include "tests/support/TracedProcess.h"

#include <chrono>
#include <csignal>
#include <cstdio>
#include <fcntl.h>
#include <filesystem>
#include <gtest/gtest.h>
#include <optional>
#include <poll.h>
#include <stdexcept>
#include <string>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

using namespace agent::spf::endpointregistry;
using tests::await;
using tests::DataPair;
using tests::DataPairs;
using tests::MonitorEvent;
using tests::MonitorEvents;

namespace fs = std::filesystem;

namespace {

const DataPair data("ab", "c");
const std::string tag = "tag";
const std::string key = "key";

MonitorEvent appearance(const std::string& ofKey = key) {
    return tests::appearanceOf(data, tag, ofKey, ::getpid());
}

MonitorEvent disappearance(const std::string& ofKey = key) {
    return tests::disappearanceOf(appearance(ofKey));
}

/// A path of a folder without the separator at its end.
fs::path plain(const std::string& folder) {
    return fs::path(folder).parent_path();
}

class MonitoredFolder : public tests::RegistryTest {
protected:
    void TearDown() override {
        fs::remove_all(away);
        tests::RegistryTest::TearDown();
    }

    /// Puts a base that others may write to in the place of the private one.
    void replaceBase() const {
        fs::rename(tests::privateBase(), away);
        fs::create_directory(tests::privateBase());
        ASSERT_EQ(::chmod(tests::privateBase().c_str(), 0777), 0);
    }

    void restoreBase() const {
        fs::remove(tests::privateBase());
        fs::rename(away, tests::privateBase());
    }

    /// Has a monitor compare all entries anew.
    void moveAwayAndBack() const {
        fs::rename(plain(tests::entryFolder()), away);
        fs::rename(away, plain(tests::entryFolder()));
    }

    const fs::path away = "/dev/shm/away";
};

} // namespace

TEST_F(MonitoredFolder, MayAppearLater) {
    EndpointMonitor monitor;
    EXPECT_FALSE(fs::exists(tests::entryFolder()));
    const Endpoint endpoint(data, tag, key);
    EXPECT_EQ(await(monitor, 1), MonitorEvents{appearance()});
    tests::expectQuiet(monitor);
}

TEST_F(MonitoredFolder, MayBeRemovedAndMadeAgain) {
    EndpointMonitor monitor;
    for (int round = 0; round < 3; ++round) {
        {
            const Endpoint endpoint(data, tag, key);
            EXPECT_EQ(await(monitor, 1), MonitorEvents{appearance()});
        }
        EXPECT_EQ(await(monitor, 1), MonitorEvents{disappearance()});
        ASSERT_TRUE(fs::remove(plain(tests::entryFolder())));
        tests::expectQuiet(monitor);
        EXPECT_EQ(monitor.list(), DataPairs());
    }
}

TEST_F(MonitoredFolder, TakesItsEntriesAlongWhenItIsRemoved) {
    EndpointMonitor monitor;
    const Endpoint endpoint(data, tag, key);
    EXPECT_EQ(monitor.take(), MonitorEvents{appearance()});
    fs::remove_all(tests::entryFolder());
    EXPECT_TRUE(tests::isReadable(monitor));
    EXPECT_EQ(monitor.take(), MonitorEvents{disappearance()});
    const Endpoint again(data, tag, key);
    EXPECT_TRUE(tests::isReadable(monitor));
    EXPECT_EQ(monitor.take(), MonitorEvents{appearance()});
    EXPECT_EQ(monitor.find(tag, key), data);
    EXPECT_EQ(Endpoint::find(tag, key), data);
}

TEST_F(MonitoredFolder, GoesWithItsBaseAtALogout) {
    EndpointMonitor monitor;
    const Endpoint endpoint(data, tag, key);
    EXPECT_EQ(monitor.take(), MonitorEvents{appearance()});
    fs::remove_all(tests::privateBase());
    EXPECT_EQ(monitor.take(), MonitorEvents{disappearance()});
    const Endpoint again(data, tag, key);
    EXPECT_EQ(monitor.take(), MonitorEvents{appearance()});
    fs::remove_all(tests::privateBase());
    const Endpoint other(data, tag, "other");
    EXPECT_TRUE(tests::isReadable(monitor));
    EXPECT_EQ(monitor.take(), (MonitorEvents{disappearance(), appearance("other")}));
}

TEST_F(MonitoredFolder, AndItsBaseMayBeRemovedWhileSomebodyHoldsThemOpen) {
    EndpointMonitor monitor;
    const Endpoint endpoint(data, tag, key);
    EXPECT_EQ(monitor.take(), MonitorEvents{appearance()});
    const foundation::os::DirectoryStream base(tests::privateBase());
    const foundation::os::DirectoryStream folder(tests::entryFolder());
    fs::remove_all(tests::privateBase());
    const Endpoint other(data, tag, "other");
    EXPECT_TRUE(tests::isReadable(monitor));
    EXPECT_EQ(monitor.take(), (MonitorEvents{disappearance(), appearance("other")}));
    tests::expectQuiet(monitor);
    const Endpoint third({"third", ""}, tag, "third");
    EXPECT_EQ(monitor.take().size(), 1U);
}

TEST_F(MonitoredFolder, MissingWithItsBaseIsNoticedWhenBothAreMadeAgain) {
    EndpointMonitor monitor;
    const foundation::os::DirectoryStream base(tests::privateBase());
    tests::expectQuiet(monitor);
    fs::remove(tests::privateBase());
    const Endpoint endpoint(data, tag, key);
    EXPECT_TRUE(tests::isReadable(monitor));
    EXPECT_EQ(monitor.take(), MonitorEvents{appearance()});
}

TEST_F(MonitoredFolder, TakesItsEntriesAlongWhenItIsMovedAway) {
    EndpointMonitor monitor;
    const Endpoint endpoint(data, tag, key);
    EXPECT_EQ(monitor.take(), MonitorEvents{appearance()});
    fs::rename(plain(tests::entryFolder()), away);
    EXPECT_TRUE(tests::isReadable(monitor));
    EXPECT_EQ(monitor.take(), MonitorEvents{disappearance()});
    EXPECT_EQ(Endpoint::list(), DataPairs());
    fs::rename(away, plain(tests::entryFolder()));
    EXPECT_TRUE(tests::isReadable(monitor));
    EXPECT_EQ(monitor.take(), MonitorEvents{appearance()});
    EXPECT_EQ(Endpoint::list(), DataPairs{data});
}

TEST_F(MonitoredFolder, IsTheOneThatWasPutInItsPlace) {
    EndpointMonitor monitor;
    const Endpoint endpoint(data, tag, key);
    EXPECT_EQ(monitor.take(), MonitorEvents{appearance()});
    fs::create_directory(away);
    ASSERT_EQ(::chmod(away.c_str(), 0700), 0);
    ASSERT_EQ(::renameat2(AT_FDCWD, away.c_str(), AT_FDCWD, plain(tests::entryFolder()).c_str(),
                          RENAME_EXCHANGE),
              0);
    const Endpoint other(data, tag, "other");
    EXPECT_EQ(monitor.take(), (MonitorEvents{disappearance(), appearance("other")}));
    tests::expectQuiet(monitor);
    // What happens in the former one is of no interest any more.
    fs::remove(away / appearance().name);
    EXPECT_FALSE(tests::isReadable(monitor));
}

TEST_F(MonitoredFolder, IsTheOneInTheBaseThatWasPutInItsPlace) {
    EndpointMonitor monitor;
    const Endpoint endpoint(data, tag, key);
    EXPECT_EQ(monitor.take(), MonitorEvents{appearance()});
    fs::rename(tests::privateBase(), away);
    EXPECT_TRUE(tests::isReadable(monitor));
    EXPECT_EQ(monitor.take(), MonitorEvents{disappearance()});
    const Endpoint other(data, tag, "other");
    EXPECT_TRUE(tests::isReadable(monitor));
    EXPECT_EQ(monitor.take(), MonitorEvents{appearance("other")});
}

TEST_F(MonitoredFolder, ThatIsMovedAwayAndBackLosesNothing) {
    EndpointMonitor monitor;
    const Endpoint endpoint(data, tag, key);
    EXPECT_EQ(monitor.take(), MonitorEvents{appearance()});
    moveAwayAndBack();
    EXPECT_EQ(monitor.take(), MonitorEvents());
    const Endpoint other({"other", ""}, tag, "other");
    EXPECT_EQ(monitor.take().size(), 1U);
}

TEST_F(MonitoredFolder, WhoseBaseIsNotToBeTrustedIsAnErrorUntilItIs) {
    EndpointMonitor monitor;
    Endpoint endpoint(data, tag, key);
    EXPECT_EQ(monitor.take(), MonitorEvents{appearance()});
    replaceBase();
    EXPECT_THROW(monitor.take(), std::runtime_error);
    EXPECT_THROW(monitor.find(tag, key), std::runtime_error);
    EXPECT_THROW(Endpoint::find(tag, key), std::runtime_error);
    EXPECT_THROW(EndpointMonitor(), std::runtime_error);
    // An event loop comes back to it.
    constexpr int limitInMilliseconds = 240'000;
    pollfd request{monitor.fileDescriptor(), POLLIN, 0};
    EXPECT_EQ(::poll(&request, 1, limitInMilliseconds), 1);
    EXPECT_THROW(monitor.take(), std::runtime_error);
    restoreBase();
    EXPECT_EQ(monitor.find(tag, key), data);
    EXPECT_EQ(monitor.take(), MonitorEvents());
    endpoint.reset();
    EXPECT_EQ(monitor.take(), MonitorEvents{disappearance()});
}

namespace {

/// Whether the descriptor is not readable for ever while all that is taken is an error.
bool becomesQuietByErrors(EndpointMonitor& monitor) {
    constexpr int most = 100;
    for (int i = 0; i < most; ++i) {
        EXPECT_THROW(monitor.take(), std::runtime_error);
        if (!tests::isReadable(monitor)) {
            return true;
        }
    }
    return false;
}

} // namespace

TEST_F(MonitoredFolder, WhoseErrorLastsIsNotReadableForChangesThatNobodyCanRead) {
    EndpointMonitor monitor;
    const Endpoint endpoint(data, tag, key);
    EXPECT_EQ(monitor.take(), MonitorEvents{appearance()});
    replaceBase();
    EXPECT_TRUE(becomesQuietByErrors(monitor));
    const fs::path changed = away / EntryFolder::parent / "file";
    tests::makeFile(changed, 0600);
    EXPECT_TRUE(becomesQuietByErrors(monitor));
    fs::remove(changed);
    restoreBase();
    const DataPair newData("new", "");
    const Endpoint other(newData, tag, "other");
    EXPECT_EQ(await(monitor, 1),
              MonitorEvents{tests::appearanceOf(newData, tag, "other", ::getpid())});
}

TEST_F(MonitoredFolder, WhoseErrorLastsIsNotReadableForEventsThatWereNotTakenBefore) {
    EndpointMonitor monitor;
    const Endpoint endpoint(data, tag, key);
    EXPECT_EQ(monitor.find(tag, key), data);
    replaceBase();
    EXPECT_TRUE(becomesQuietByErrors(monitor));
    restoreBase();
    EXPECT_EQ(await(monitor, 1), MonitorEvents{appearance()});
}

TEST_F(MonitoredFolder, WhoseErrorLastsIsWaitedForBeforeTheNextAttempt) {
    tests::TracedProcess process([this] {
        EndpointMonitor monitor;
        replaceBase();
        EXPECT_THROW(monitor.wait(std::chrono::minutes(1)), std::runtime_error);
        static_cast<void>(::raise(SIGSTOP));
        EXPECT_THROW(monitor.wait(std::chrono::minutes(1)), std::runtime_error);
    });
    process.runToOwnStop();
    EXPECT_TRUE(process.runToCall(SYS_ppoll, [](const auto&) { return true; }));
}

TEST_F(MonitoredFolder, MayBeReplacedByALinkToIt) {
    EndpointMonitor monitor;
    const Endpoint endpoint(data, tag, key);
    EXPECT_EQ(monitor.take(), MonitorEvents{appearance()});
    fs::rename(plain(tests::entryFolder()), away);
    fs::create_directory_symlink(away, plain(tests::entryFolder()));
    EXPECT_EQ(monitor.take(), MonitorEvents());
    const DataPair newData("new", "");
    const MonitorEvent next = tests::appearanceOf(newData, tag, "other", ::getpid());
    Endpoint other(newData, tag, "other");
    EXPECT_EQ(monitor.take(), MonitorEvents{next});
    EXPECT_EQ(monitor.find(tag, "other"), Endpoint::find(tag, "other"));
    other.reset();
    EXPECT_EQ(monitor.take(), MonitorEvents{tests::disappearanceOf(next)});
    fs::remove(plain(tests::entryFolder()));
    EXPECT_EQ(monitor.take(), MonitorEvents{disappearance()});
    fs::rename(away, plain(tests::entryFolder()));
    EXPECT_EQ(monitor.take(), MonitorEvents{appearance()});
}

TEST_F(MonitoredFolder, ThatIsComparedAnewTellsTheEndOfAnEntryBeforeItsSuccessor) {
    EndpointMonitor monitor;
    tests::ForkedProcess publisher([](tests::Channel& test) {
        const Endpoint endpoint(data, tag, key);
        test.send("published");
        test.receive();
    });
    const MonitorEvent former = tests::appearanceOf(data, tag, key, publisher.pid());
    EXPECT_EQ(await(monitor, 1), MonitorEvents{former});
    moveAwayAndBack();
    publisher.kill();
    const DataPair newData("new", "");
    const Endpoint successor(newData, tag, key);
    EXPECT_EQ(monitor.take(), (MonitorEvents{tests::disappearanceOf(former),
                                             tests::appearanceOf(newData, tag, key, ::getpid())}));
}

TEST_F(MonitoredFolder, WhoseBaseIsOpenedToOthersIsAnErrorUntilItIsClosed) {
    EndpointMonitor monitor;
    const Endpoint endpoint(data, tag, key);
    EXPECT_EQ(monitor.take(), MonitorEvents{appearance()});
    ASSERT_EQ(::chmod(tests::privateBase().c_str(), 0755), 0);
    EXPECT_TRUE(tests::isReadable(monitor));
    EXPECT_THROW(Endpoint::find(tag, key), std::runtime_error);
    EXPECT_THROW(monitor.find(tag, key), std::runtime_error);
    ASSERT_EQ(::chmod(tests::privateBase().c_str(), 0700), 0);
    EXPECT_TRUE(tests::isReadable(monitor));
    EXPECT_EQ(monitor.find(tag, key), data);
    EXPECT_EQ(monitor.take(), MonitorEvents());
}

namespace {

/// Mounts an empty file system over the private base, until the object goes.
class MountOverBase {
public:
    MountOverBase()
        : isMounted(::mount("tmpfs", tests::privateBase().c_str(), "tmpfs", MS_NOSUID | MS_NODEV,
                            "mode=0700") == 0) {}
    MountOverBase(const MountOverBase&) = delete;
    MountOverBase& operator=(const MountOverBase&) = delete;
    ~MountOverBase() {
        if (isMounted) {
            ::umount2(tests::privateBase().c_str(), MNT_DETACH);
        }
    }

    explicit operator bool() const { return isMounted; }

private:
    bool isMounted;
};

} // namespace

TEST_F(MonitoredFolder, IsTheOneThatWasMountedOverItOnceAnEntryIsExamined) {
    EndpointMonitor monitor;
    const Endpoint endpoint(data, tag, key);
    EXPECT_EQ(monitor.take(), MonitorEvents{appearance()});
    const foundation::os::FileDescriptor covered(
        ::open(tests::entryFolder().c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    {
        const MountOverBase mount;
        if (!mount) {
            GTEST_SKIP() << "needs to be allowed to mount";
        }
        const Endpoint other(data, tag, "other");
        ASSERT_EQ(::utimensat(covered.get(), appearance().name.c_str(), nullptr, 0), 0);
        EXPECT_EQ(monitor.find(tag, "other"), data);
        EXPECT_EQ(monitor.take(), (MonitorEvents{disappearance(), appearance("other")}));
    }
    EXPECT_EQ(await(monitor, 2), (MonitorEvents{disappearance("other"), appearance()}));
}
