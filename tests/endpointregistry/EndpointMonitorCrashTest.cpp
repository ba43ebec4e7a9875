#include "endpointregistry/EndpointMonitor.h"

#include "tests/endpointregistry/EndpointMonitorTools.h"
#include "tests/endpointregistry/EndpointTools.h"
#include "tests/endpointregistry/SharingTools.h"
#include "tests/support/TestAccounts.h"
#include "tests/support/TracedProcess.h"

#include <algorithm>
#include <csignal>
#include <cstdlib>
#include <functional>
#include <gtest/gtest.h>
#include <iterator>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <unistd.h>
#include <utility>
#include <vector>

using namespace agent::spf::endpointregistry;
using tests::DataPair;
using tests::DataPairs;
using tests::MonitorEvent;
using tests::MonitorEvents;
using tests::TracedProcess;

namespace {

using Kind = MonitorEvent::Kind;

const DataPair data("first", "second");
const std::string tag = "crash";
const std::string key = "key";
const std::string friends = tests::accounts::friends;

void publishAndWithdraw() {
    ::raise(SIGSTOP);
    const Endpoint endpoint(data, tag, key);
}

/// As a member of the group; only what has to do with the group are steps.
void shareAndWithdraw() {
    tests::accounts::become(tests::accounts::anna);
    Endpoint::list(); // Clears away what those before it have left of her private entries.
    Endpoint endpoint(data, tag, key);
    ::raise(SIGSTOP);
    endpoint.addTrustees({friends});
    endpoint.removeTrustees({friends});
    ::_exit(EXIT_SUCCESS);
}

std::vector<Kind> kindsOf(const MonitorEvents& events) {
    std::vector<Kind> kinds;
    std::transform(events.begin(), events.end(), std::back_inserter(kinds),
                   [](const MonitorEvent& event) { return event.kind; });
    return kinds;
}

void append(MonitorEvents& events, const MonitorEvents& more) {
    events.insert(events.end(), more.begin(), more.end());
}

const std::vector<Kind> nothing;
const std::vector<Kind> comesAndGoes{Kind::appeared, Kind::disappeared};

/// A monitor, and a publisher that is stopped, or has ended if it is not on the way.
using AtStep = std::function<void(EndpointMonitor& monitor,
                                  std::unique_ptr<TracedProcess> publisher, bool isOnTheWay)>;

/// Stops a publisher one step later each time.
void forEachStep(const std::function<void()>& body, const std::set<std::string>& trustees,
                 const AtStep& test) {
    EndpointMonitor monitor("", trustees);
    int step = 0;
    for (bool isOnTheWay = true; isOnTheWay && !testing::Test::HasFailure(); ++step) {
        const testing::ScopedTrace trace(__FILE__, __LINE__, "step " + std::to_string(step));
        auto publisher = std::make_unique<TracedProcess>(body);
        publisher->runToOwnStop();
        isOnTheWay = publisher->run(step);
        test(monitor, std::move(publisher), isOnTheWay);
    }
    // Far fewer would mean that the child did not do what it is stopped in.
    EXPECT_GT(step, 50);
}

class MonitoredCrash : public tests::RegistryTest {};
class MonitoredSharingCrash : public tests::SharingTest {};

} // namespace

TEST_F(MonitoredCrash, OfAPublisherLeavesNothingThatIsFound) {
    int sightings = 0;
    forEachStep(publishAndWithdraw, {""}, [&](auto& monitor, auto publisher, bool) {
        // One that is being withdrawn may be found by one of them only.
        if (Endpoint::find(tag, key)) {
            EXPECT_EQ(monitor.find(tag, key), data);
            ++sightings;
        }
        publisher.reset();
        EXPECT_EQ(monitor.find(tag, key), std::nullopt);
        EXPECT_EQ(Endpoint::find(tag, key), std::nullopt);
        EXPECT_EQ(kindsOf(monitor.take()), nothing);
    });
    EXPECT_GT(sightings, 3);
    // What had not got its name yet is cleared away by the next publisher.
    const Endpoint next({"next", ""}, tag, "next");
}

TEST_F(MonitoredCrash, OfAPublisherIsReportedIfItsEntryWas) {
    int pairs = 0;
    forEachStep(publishAndWithdraw, {""}, [&](auto& monitor, auto publisher, bool) {
        MonitorEvents events = monitor.take();
        publisher.reset();
        append(events, monitor.take());
        if (!events.empty()) {
            EXPECT_EQ(kindsOf(events), comesAndGoes);
            ++pairs;
        }
    });
    EXPECT_GT(pairs, 3);
}

TEST_F(MonitoredCrash, ThatDoesNotHappenIsNotReported) {
    constexpr int untilTheEnd = 10'000'000;
    int pairs = 0;
    forEachStep(publishAndWithdraw, {""}, [&](auto& monitor, auto publisher, bool isOnTheWay) {
        MonitorEvents events = monitor.take();
        if (isOnTheWay) {
            publisher->run(untilTheEnd);
        }
        append(events, monitor.take());
        if (!events.empty()) {
            EXPECT_EQ(kindsOf(events), comesAndGoes);
            ++pairs;
        }
        EXPECT_EQ(monitor.list(), DataPairs());
    });
    EXPECT_GT(pairs, 3);
}

TEST_F(MonitoredSharingCrash, OfAMemberLeavesNothingThatIsFoundOrReported) {
    // Nobody looks while the member is stopped, who may hold the lock of the group's table.
    forEachStep(shareAndWithdraw, {friends}, [](auto& monitor, auto publisher, bool) {
        publisher.reset();
        EXPECT_EQ(monitor.find(tag, key), std::nullopt);
        EXPECT_EQ(Endpoint::find(tag, key, {friends}), std::nullopt);
        EXPECT_EQ(kindsOf(monitor.take()), nothing);
    });
}
