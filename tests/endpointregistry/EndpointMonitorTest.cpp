#include "endpointregistry/EndpointMonitor.h"

#include "tests/endpointregistry/EndpointMonitorTools.h"
#include "tests/endpointregistry/EndpointTools.h"
#include "tests/endpointregistry/LockedFileTools.h"

#include <atomic>
#include <chrono>
#include <csignal>
#include <fcntl.h>
#include <filesystem>
#include <gtest/gtest.h>
#include <optional>
#include <poll.h>
#include <stdexcept>
#include <string>
#include <sys/file.h>
#include <sys/stat.h>
#include <thread>
#include <type_traits>
#include <unistd.h>
#include <utility>
#include <vector>

using namespace agent::spf::endpointregistry;
using namespace std::chrono_literals;
using tests::await;
using tests::DataPair;
using tests::DataPairs;
using tests::MonitorEvent;
using tests::MonitorEvents;

namespace fs = std::filesystem;

static_assert(std::is_nothrow_move_constructible_v<EndpointMonitor>);
static_assert(std::is_nothrow_move_assignable_v<EndpointMonitor>);
static_assert(!std::is_copy_constructible_v<EndpointMonitor>);

namespace {

const DataPair data("ab", "c");
const std::string tag = "tag";
const std::string key = "key";

MonitorEvent appearance(const DataPair& ofData = data, const std::string& ofTag = tag,
                        const std::string& ofKey = key) {
    return tests::appearanceOf(ofData, ofTag, ofKey, ::getpid());
}

MonitorEvent disappearance(const DataPair& ofData = data, const std::string& ofTag = tag,
                           const std::string& ofKey = key) {
    return tests::disappearanceOf(appearance(ofData, ofTag, ofKey));
}

class Monitor : public tests::RegistryTest {};

} // namespace

TEST_F(Monitor, OfAnEmptyRegistryReportsNothing) {
    EndpointMonitor monitor;
    EXPECT_EQ(monitor.take(), MonitorEvents());
    EXPECT_EQ(monitor.list(), DataPairs());
    tests::expectQuiet(monitor);
}

TEST_F(Monitor, FirstReportsWhatIsThere) {
    const Endpoint endpoint(data, tag, key);
    EndpointMonitor monitor;
    EXPECT_TRUE(tests::isReadable(monitor));
    EXPECT_EQ(monitor.take(), MonitorEvents{appearance()});
    tests::expectQuiet(monitor);
}

TEST_F(Monitor, ReportsAnAppearanceAndADisappearance) {
    EndpointMonitor monitor;
    Endpoint endpoint(data, tag, key);
    EXPECT_TRUE(tests::isReadable(monitor));
    EXPECT_EQ(monitor.take(), MonitorEvents{appearance()});
    tests::expectQuiet(monitor);
    endpoint.reset();
    EXPECT_TRUE(tests::isReadable(monitor));
    EXPECT_EQ(monitor.take(), MonitorEvents{disappearance()});
    tests::expectQuiet(monitor);
}

TEST_F(Monitor, ReportsInTheOrderInWhichThingsHappen) {
    tests::provideEntryFolder();
    EndpointMonitor monitor;
    const Endpoint first({"1", ""}, tag, "first");
    Endpoint second({"2", ""}, tag, "second");
    const Endpoint third({"3", ""}, tag, "third");
    EXPECT_EQ(monitor.take(), (MonitorEvents{appearance({"1", ""}, tag, "first"),
                                             appearance({"2", ""}, tag, "second"),
                                             appearance({"3", ""}, tag, "third")}));
    second.reset();
    const Endpoint fourth({"4", ""}, tag, "fourth");
    EXPECT_EQ(monitor.take(), (MonitorEvents{disappearance({"2", ""}, tag, "second"),
                                             appearance({"4", ""}, tag, "fourth")}));
}

TEST_F(Monitor, ReportsAnEntryThatIsPublishedAgain) {
    EndpointMonitor monitor;
    for (int round = 0; round < 100; ++round) {
        const Endpoint endpoint(data, tag, key);
        EXPECT_EQ(monitor.take(), round == 0 ? MonitorEvents{appearance()}
                                             : (MonitorEvents{disappearance(), appearance()}));
    }
}

TEST_F(Monitor, OfOneGroupTagReportsOnlyItsEntries) {
    const Endpoint before({"other", ""}, "other tag", "before");
    EndpointMonitor monitor(tag);
    EXPECT_EQ(monitor.groupTag(), tag);
    EXPECT_EQ(monitor.trustees(), std::set<std::string>{""});
    Endpoint other({"other", ""}, "another tag", key);
    Endpoint endpoint(data, tag, key);
    EXPECT_EQ(monitor.take(), MonitorEvents{appearance()});
    EXPECT_EQ(monitor.list(), DataPairs{data});
    EXPECT_EQ(monitor.filter("another tag"), DataPairs());
    other.reset();
    endpoint.reset();
    EXPECT_EQ(monitor.take(), MonitorEvents{disappearance()});
}

TEST_F(Monitor, ReportsNothingOfAPublicationThatIsRefused) {
    const Endpoint endpoint(data, tag, key);
    EndpointMonitor monitor;
    monitor.take();
    EXPECT_THROW(Endpoint({"other", ""}, tag, key), Endpoint::DuplicateEndpointError);
    tests::expectQuiet(monitor);
}

TEST_F(Monitor, ReportsNothingWhenOthersLookUp) {
    const Endpoint endpoint(data, tag, key);
    EndpointMonitor monitor;
    monitor.take();
    tests::waitUntil(
        [&] {
            monitor.take();
            return !tests::isReadable(monitor);
        },
        "a quiet monitor");
    EXPECT_EQ(Endpoint::find(tag, key), data);
    EXPECT_EQ(Endpoint::list(), DataPairs{data});
    EXPECT_FALSE(tests::isReadable(monitor));
}

TEST_F(Monitor, MovesWithAllThatItKnows) {
    const Endpoint endpoint(data, tag, key);
    EndpointMonitor first;
    EndpointMonitor second(std::move(first));
    EXPECT_EQ(second.find(tag, key), data);
    EndpointMonitor third("another tag");
    third = std::move(second);
    EXPECT_EQ(third.take(), MonitorEvents{appearance()});
    const Endpoint next({"next", ""}, tag, "next");
    EXPECT_EQ(third.take(), (MonitorEvents{appearance({"next", ""}, tag, "next")}));
}

TEST_F(Monitor, MayBeOneOfMany) {
    EndpointMonitor first;
    EndpointMonitor second(tag);
    const Endpoint endpoint(data, tag, key);
    EXPECT_EQ(first.take(), MonitorEvents{appearance()});
    EXPECT_EQ(second.take(), MonitorEvents{appearance()});
}

TEST_F(Monitor, LeavesNoDescriptorOpen) {
    const std::size_t before = tests::countDescriptors();
    {
        EndpointMonitor monitor;
        const Endpoint endpoint(data, tag, key);
        monitor.take();
        EXPECT_EQ(monitor.find(tag, key), data);
    }
    EXPECT_EQ(tests::countDescriptors(), before);
}

TEST_F(Monitor, TakesFourDescriptorsWhateverItWatches) {
    const std::size_t before = tests::countDescriptors();
    EndpointMonitor monitor;
    EXPECT_EQ(tests::countDescriptors(), before + 4);
    std::vector<Endpoint> endpoints;
    for (int i = 0; i < 20; ++i) {
        endpoints.emplace_back(DataPair(std::to_string(i), ""), tag);
    }
    const std::size_t with = tests::countDescriptors();
    EXPECT_EQ(monitor.take().size(), 20U);
    EXPECT_EQ(tests::countDescriptors(), with);
}

TEST_F(Monitor, ReportsWhatLookupsHaveNoticed) {
    EndpointMonitor monitor;
    Endpoint endpoint(data, tag, key);
    EXPECT_EQ(monitor.find(tag, key), data);
    EXPECT_TRUE(tests::isReadable(monitor));
    EXPECT_EQ(monitor.take(), MonitorEvents{appearance()});
    endpoint.reset();
    EXPECT_EQ(monitor.find(tag, key), std::nullopt);
    EXPECT_TRUE(tests::isReadable(monitor));
    EXPECT_EQ(monitor.take(), MonitorEvents{disappearance()});
    tests::expectQuiet(monitor);
}

TEST_F(Monitor, ThatIsOnlyAskedDoesNotCollectWhatCameAndWent) {
    EndpointMonitor monitor;
    for (int round = 0; round < 10; ++round) {
        const Endpoint endpoint(data, tag, key);
        EXPECT_EQ(monitor.find(tag, key), data);
    }
    EXPECT_EQ(monitor.find(tag, key), std::nullopt);
    EXPECT_EQ(monitor.take(), MonitorEvents());
}

TEST_F(Monitor, OfSeveralEntriesFindsTheOneThatALookupFinds) {
    EndpointMonitor monitor;
    std::vector<Endpoint> endpoints;
    for (int i = 0; i < 8; ++i) {
        endpoints.emplace_back(DataPair(std::to_string(i), ""), tag, key + std::to_string(i));
        EXPECT_EQ(monitor.find(tag, ""), Endpoint::find(tag, ""));
        EXPECT_EQ(monitor.find("", ""), Endpoint::find("", ""));
        EXPECT_EQ(monitor.find("", key + "3"), Endpoint::find("", key + "3"));
    }
}

TEST_F(Monitor, FindsTheEndOfAnEntryWhoseFileSomebodyRemoved) {
    const Endpoint endpoint(data, tag, key);
    EndpointMonitor monitor;
    monitor.take();
    fs::remove(tests::entryPath(appearance().name));
    EXPECT_EQ(monitor.take(), MonitorEvents{disappearance()});
}

TEST_F(Monitor, ReportsAnEntryThatDoesNotTellThatItIsReady) {
    EndpointMonitor monitor;
    const std::string name = tests::entryName(data, tag, key, ::getpid());
    tests::PlantedEntry entry(name, "");
    entry.hold();
    EXPECT_EQ(monitor.take(), MonitorEvents());
    EXPECT_EQ(monitor.find(tag, key), std::nullopt);
    tests::plantSegment(name, tests::segmentBytes(data));
    EXPECT_EQ(monitor.find(tag, key), data);
    EXPECT_EQ(monitor.take(), MonitorEvents{appearance()});
}

TEST_F(Monitor, WaitsForAnEntryThatDoesNotTellThatItIsReady) {
    EndpointMonitor monitor;
    const std::string name = tests::entryName(data, tag, key, ::getpid());
    tests::PlantedEntry entry(name, "");
    entry.hold();
    EXPECT_EQ(monitor.take(), MonitorEvents());
    tests::plantSegment(name, tests::segmentBytes(data));
    EXPECT_EQ(await(monitor, 1), MonitorEvents{appearance()});
}

TEST_F(Monitor, PassesOverWhatNoLookupReads) {
    const DataPair other("x", "");
    EndpointMonitor monitor;
    const tests::PlantedEntry dead(tests::entryName(other, tag, "dead", tests::noProcess),
                                   tests::segmentBytes(other));
    tests::PlantedEntry contradictory(tests::entryName(other, tag, "wrong", ::getpid()),
                                      std::string(1, '\1') + std::string(7, '\0') +
                                          std::string(8, '\xff') + "x" + '\0');
    contradictory.hold();
    tests::PlantedEntry unready(tests::entryName(other, tag, "unready", ::getpid()),
                                tests::segmentBytes(other, 0));
    unready.hold();
    std::string newer = tests::entryName(other, tag, "newer", ::getpid());
    newer.back() = '1';
    tests::PlantedEntry ofNewer(newer, tests::segmentBytes(other));
    ofNewer.hold();
    const tests::PlantedEntry stranger("something else", "");
    const Endpoint endpoint(data, tag, key);
    EXPECT_EQ(monitor.take(), MonitorEvents{appearance()});
    EXPECT_EQ(monitor.list(), DataPairs{data});
    EndpointMonitor late;
    EXPECT_EQ(late.take(), MonitorEvents{appearance()});
    EXPECT_FALSE(dead.hasFile());
    EXPECT_FALSE(dead.hasSegment());
}

TEST_F(Monitor, LooksAgainAtAnEntryWhoseFileWasClosedBeforeItsLockWentAway) {
    const std::string name = tests::entryName(data, tag, key, ::getpid());
    const tests::PlantedEntry entry(name, tests::segmentBytes(data));
    ASSERT_EQ(::chmod(tests::entryPath(name).c_str(), 0600), 0);
    const foundation::os::FileDescriptor lock = tests::openFile(tests::entryPath(name));
    ASSERT_EQ(::flock(lock.get(), LOCK_EX | LOCK_NB), 0);
    EndpointMonitor monitor;
    EXPECT_EQ(monitor.take(), MonitorEvents{appearance()});
    // Over which it looks at all entries once more, as after every listing.
    EXPECT_EQ(monitor.wait(100ms), MonitorEvents());
    // Tells as much as the end of a publisher does, just before its lock is dropped.
    foundation::os::FileDescriptor(::open(tests::entryPath(name).c_str(), O_WRONLY | O_CLOEXEC));
    EXPECT_EQ(monitor.take(), MonitorEvents());
    EXPECT_EQ(monitor.find(tag, key), data);
    ASSERT_EQ(::flock(lock.get(), LOCK_UN), 0);
    EXPECT_EQ(await(monitor, 1), MonitorEvents{disappearance()});
    EXPECT_EQ(monitor.find(tag, key), std::nullopt);
}

TEST_F(Monitor, WaitsUntilSomethingHappens) {
    EndpointMonitor monitor;
    Endpoint endpoint;
    std::thread publisher([&] { endpoint = Endpoint(data, tag, key); });
    EXPECT_EQ(await(monitor, 1), MonitorEvents{appearance()});
    publisher.join();
}

TEST_F(Monitor, DoesNotWaitWithoutTime) {
    EndpointMonitor monitor;
    EXPECT_EQ(monitor.wait(0ms), MonitorEvents());
    EXPECT_EQ(monitor.wait(-1ms), MonitorEvents());
    EXPECT_EQ(monitor.wait(std::chrono::milliseconds::min()), MonitorEvents());
}

TEST_F(Monitor, EndsItsWaitInTime) {
    EndpointMonitor monitor;
    EXPECT_EQ(monitor.wait(30ms), MonitorEvents());
}

namespace {

extern "C" void noteSignal(int) {
}

} // namespace

TEST_F(Monitor, EndsItsWaitWhenASignalIsHandled) {
    struct sigaction action {};
    struct sigaction before {};
    action.sa_handler = noteSignal;
    action.sa_flags = SA_RESTART;
    ASSERT_EQ(::sigaction(SIGUSR1, &action, &before), 0);
    EndpointMonitor monitor;
    const pthread_t self = ::pthread_self();
    std::atomic<bool> isOver = false;
    // One that comes before the wait interrupts nothing.
    std::thread sender([&] {
        while (!isOver) {
            ::pthread_kill(self, SIGUSR1);
            std::this_thread::sleep_for(1ms);
        }
    });
    EXPECT_EQ(monitor.wait(std::chrono::milliseconds::max()), MonitorEvents());
    isOver = true;
    sender.join();
    ::sigaction(SIGUSR1, &before, nullptr);
}
