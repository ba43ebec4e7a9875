#include "endpointregistry/EndpointMonitor.h"

#include "tests/endpointregistry/EndpointMonitorTools.h"
#include "tests/endpointregistry/EndpointProcesses.h"
#include "tests/endpointregistry/EndpointTools.h"
#include "tests/endpointregistry/LockedFileTools.h"
#include "tests/support/ForkedProcess.h"

#include <algorithm>
#include <chrono>
#include <gtest/gtest.h>
#include <memory>
#include <optional>
#include <string>
#include <unistd.h>
#include <utility>
#include <vector>

using namespace agent::spf::endpointregistry;
using namespace std::chrono_literals;
using tests::await;
using tests::Channel;
using tests::Crew;
using tests::DataPair;
using tests::DataPairs;
using tests::ForkedProcess;
using tests::MonitorEvent;
using tests::MonitorEvents;

namespace {

const DataPair data("ab", "c");
const std::string tag = "tag";
const std::string key = "key";

/// Publishes until it is told to end, or killed.
void publish(Channel& test) {
    const Endpoint endpoint(data, tag, key);
    test.send("published");
    test.receive();
}

MonitorEvent appearanceBy(const ForkedProcess& publisher) {
    return tests::appearanceOf(data, tag, key, publisher.pid());
}

class MonitoredProcesses : public tests::RegistryTest {};

} // namespace

TEST_F(MonitoredProcesses, AreReportedWhenTheyPublishAndWhenTheyEnd) {
    EndpointMonitor monitor;
    ForkedProcess publisher(publish);
    EXPECT_EQ(await(monitor, 1), MonitorEvents{appearanceBy(publisher)});
    publisher.channel().send("end");
    EXPECT_EQ(await(monitor, 1), MonitorEvents{tests::disappearanceOf(appearanceBy(publisher))});
    EXPECT_EQ(publisher.waitForExit(), 0);
}

TEST_F(MonitoredProcesses, AreNeverFoundAfterTheyWereKilledAndReaped) {
    EndpointMonitor monitor;
    for (int round = 0; round < 600; ++round) {
        ForkedProcess publisher(publish);
        publisher.channel().receive();
        const MonitorEvent appearance = appearanceBy(publisher);
        ASSERT_EQ(monitor.find(tag, key), data) << "in round " << round;
        publisher.kill();
        ASSERT_EQ(monitor.find(tag, key), std::nullopt) << "in round " << round;
        ASSERT_EQ(monitor.list(), DataPairs()) << "in round " << round;
        ASSERT_TRUE(monitor.take().empty()) << "in round " << round;
        ASSERT_EQ(tests::entryFiles(), std::vector<std::string>()) << "in round " << round;
    }
}

TEST_F(MonitoredProcesses, AreReportedOnceWhenTheyAreKilled) {
    EndpointMonitor monitor;
    for (int round = 0; round < 300; ++round) {
        ForkedProcess publisher(publish);
        const MonitorEvent appearance = appearanceBy(publisher);
        ASSERT_EQ(await(monitor, 1), MonitorEvents{appearance}) << "in round " << round;
        tests::killWithoutReaping(publisher);
        ASSERT_EQ(await(monitor, 1), MonitorEvents{tests::disappearanceOf(appearance)})
            << "in round " << round;
    }
    EXPECT_EQ(tests::segmentFiles(), std::vector<std::string>());
}

TEST_F(MonitoredProcesses, ThatPublishedBeforeAreReportedWhenTheyDie) {
    ForkedProcess publisher(publish);
    publisher.channel().receive();
    EndpointMonitor monitor;
    EXPECT_EQ(monitor.take(), MonitorEvents{appearanceBy(publisher)});
    publisher.kill();
    EXPECT_EQ(monitor.take(), MonitorEvents{tests::disappearanceOf(appearanceBy(publisher))});
}

TEST_F(MonitoredProcesses, OfADeadPublishersNameAreReportedWhenTheyDie) {
    EndpointMonitor monitor;
    ForkedProcess publisher([](Channel& test) {
        // As if the id had been another process's before.
        const tests::PlantedEntry left(tests::entryName(data, tag, key, ::getpid()),
                                       tests::segmentBytes({"", "old"}));
        publish(test);
    });
    EXPECT_EQ(await(monitor, 1), MonitorEvents{appearanceBy(publisher)});
    publisher.kill();
    EXPECT_EQ(await(monitor, 1), MonitorEvents{tests::disappearanceOf(appearanceBy(publisher))});
}

TEST_F(MonitoredProcesses, ThatForkedLiveUntilTheirLastChildHasEnded) {
    EndpointMonitor monitor;
    ForkedProcess publisher([](Channel& test) {
        const Endpoint endpoint(data, tag, key);
        ForkedProcess child([](Channel& parent) { parent.receive(); });
        test.send("published");
        test.receive();
        // The child's end of the conversation closes with this process.
        ::_exit(EXIT_SUCCESS);
    });
    publisher.channel().receive();
    const MonitorEvent appearance = appearanceBy(publisher);
    EXPECT_EQ(monitor.take(), MonitorEvents{appearance});
    publisher.kill();
    EXPECT_EQ(await(monitor, 1), MonitorEvents{tests::disappearanceOf(appearance)});
    EXPECT_EQ(Endpoint::list(), DataPairs());
}

TEST_F(MonitoredProcesses, AreWatchedByAMonitorWhoseForkedCopyIsDestroyed) {
    auto monitor = std::make_unique<EndpointMonitor>();
    EXPECT_EQ(tests::runInChild([&] { monitor.reset(); }), 0);
    const Endpoint endpoint(data, tag, key);
    EXPECT_EQ(monitor->take().size(), 1U);
    EXPECT_EQ(monitor->find(tag, key), data);
}

TEST_F(MonitoredProcesses, CanAllBeKilledAtOnce) {
    constexpr std::size_t size = 20;
    EndpointMonitor monitor;
    MonitorEvents appearances;
    {
        const Crew crew(size, [](std::size_t number, Channel& test) {
            const Endpoint endpoint({std::to_string(number), ""}, tag);
            test.send("published");
            test.receive();
        });
        crew.hear();
        appearances = monitor.take();
        EXPECT_EQ(appearances.size(), size);
    }
    MonitorEvents disappearances = monitor.take();
    const auto byName = [](const MonitorEvent& one, const MonitorEvent& other) {
        return one.name < other.name;
    };
    for (MonitorEvent& event : appearances) {
        event = tests::disappearanceOf(event);
    }
    std::sort(appearances.begin(), appearances.end(), byName);
    std::sort(disappearances.begin(), disappearances.end(), byName);
    EXPECT_EQ(disappearances, appearances);
    tests::expectQuiet(monitor);
}
