#include "endpointregistry/EndpointMonitor.h"

#include "tests/endpointregistry/EndpointMonitorTools.h"
#include "tests/endpointregistry/EndpointProcesses.h"
#include "tests/endpointregistry/EndpointTools.h"
#include "tests/endpointregistry/LockedFileProcesses.h"
#include "tests/support/ForkedProcess.h"

#include <array>
#include <atomic>
#include <chrono>
#include <cstddef>
#include <gtest/gtest.h>
#include <map>
#include <optional>
#include <string>
#include <vector>

using namespace agent::spf::endpointregistry;
using tests::Channel;
using tests::Crew;
using tests::DataPair;
using tests::DataPairs;
using tests::ForkedProcess;
using tests::MonitorEvent;
using tests::MonitorEvents;

namespace {

using Kind = MonitorEvent::Kind;

const std::string tag = "tag";

/// Holds events against each other: an entry appears and disappears by turns.
class Tally {
public:
    void add(const MonitorEvents& events) {
        for (const MonitorEvent& event : events) {
            const bool isAppearance = event.kind == Kind::appeared;
            EXPECT_NE(present[event.name], isAppearance) << event.data.first;
            present[event.name] = isAppearance;
            ++(isAppearance ? appeared : disappeared);
        }
    }

    std::size_t appearances() const { return appeared; }
    std::size_t disappearances() const { return disappeared; }

private:
    std::map<std::string, bool> present;
    std::size_t appeared = 0;
    std::size_t disappeared = 0;
};

class MonitorUnderLoad : public tests::RegistryTest {};

} // namespace

TEST_F(MonitorUnderLoad, ReportsEachOfAHundredThousandAppearancesAndDisappearancesOnce) {
    constexpr std::size_t rounds = 4000;
    constexpr std::size_t perRound = 25;
    tests::provideEntryFolder();
    EndpointMonitor monitor;
    ForkedProcess publisher([](Channel& test) {
        for (std::size_t round = 0; round < rounds; ++round) {
            std::vector<Endpoint> endpoints;
            for (std::size_t number = 0; number < perRound; ++number) {
                endpoints.emplace_back(DataPair(std::to_string(number), ""), tag);
            }
            // They stay until all were seen: what nobody has looked at while it was there is not
            // reported.
            test.receive();
        }
    });
    Tally tally;
    for (std::size_t round = 1; round <= rounds; ++round) {
        while (tally.appearances() < round * perRound) {
            tally.add(monitor.wait(std::chrono::minutes(4)));
            ASSERT_FALSE(HasFailure());
        }
        ASSERT_EQ(tally.appearances(), round * perRound);
        publisher.channel().send("seen");
    }
    EXPECT_EQ(publisher.waitForExit(), 0);
    tally.add(monitor.take());
    EXPECT_EQ(tally.appearances(), 100'000U);
    EXPECT_EQ(tally.disappearances(), 100'000U);
    EXPECT_EQ(monitor.list(), DataPairs());
}

namespace {

constexpr std::size_t publishers = 4;

/// What publishers have come to: a number each, that grows by one whenever a publication or a
/// withdrawal begins or ends.
struct Progress {
    std::array<std::atomic<unsigned>, publishers> steps{};
    std::atomic<bool> isOver = false;

    enum class State { absent, published, unknown };

    static State stateOf(unsigned step) {
        constexpr unsigned ofOneRound = 4;
        switch (step % ofOneRound) {
        case 0:
            return State::absent;
        case 2:
            return State::published;
        default:
            return State::unknown;
        }
    }
};

std::string keyOf(std::size_t number) {
    return "key" + std::to_string(number);
}

DataPair dataOf(std::size_t number) {
    return {std::to_string(number), "data"};
}

/// Publishes and withdraws until the end, and looks around in between for as long as others may
/// need to look.
void comeAndGo(std::size_t number, Progress& progress) {
    constexpr int looks = 20;
    std::atomic<unsigned>& step = progress.steps.at(number);
    while (!progress.isOver) {
        ++step;
        Endpoint endpoint(dataOf(number), tag, keyOf(number));
        ++step;
        for (int look = 0; look < looks; ++look) {
            EXPECT_EQ(Endpoint::find(tag, keyOf(number)), dataOf(number));
        }
        ++step;
        endpoint.reset();
        ++step;
        for (int look = 0; look < looks; ++look) {
            EXPECT_EQ(Endpoint::find(tag, keyOf(number)), std::nullopt);
        }
    }
}

/// Expects of a lookup that it finds what is there all the while, and nothing that is not.
template<typename Find>
void expectTruth(const Progress& progress, std::size_t number, std::size_t& certain, Find find) {
    const unsigned before = progress.steps.at(number);
    const auto found = find();
    if (progress.steps.at(number) != before) {
        return;
    }
    switch (Progress::stateOf(before)) {
    case Progress::State::absent:
        EXPECT_EQ(found, std::nullopt);
        ++certain;
        break;
    case Progress::State::published:
        EXPECT_EQ(found, dataOf(number));
        ++certain;
        break;
    case Progress::State::unknown:
        break;
    }
}

} // namespace

TEST_F(MonitorUnderLoad, FindsWhatIsPublishedAndNothingElseAsLookupsOfTheRegistryDo) {
    constexpr std::size_t enough = 20'000;
    tests::provideEntryFolder();
    const tests::SharedWithChildren<Progress> progress;
    EndpointMonitor monitor;
    Tally tally;
    std::size_t certain = 0;
    std::size_t certainOfRegistry = 0;
    {
        const Crew crew(publishers,
                        [&](std::size_t number, Channel&) { comeAndGo(number, *progress); });
        while ((certain < enough || certainOfRegistry < enough) && !HasFailure()) {
            for (std::size_t number = 0; number < publishers; ++number) {
                expectTruth(*progress, number, certain,
                            [&] { return monitor.find(tag, keyOf(number)); });
                expectTruth(*progress, number, certainOfRegistry,
                            [&] { return Endpoint::find(tag, keyOf(number)); });
            }
            tally.add(monitor.take());
        }
        progress->isOver = true;
        crew.expectSuccess();
    }
    tally.add(monitor.take());
    EXPECT_EQ(tally.appearances(), tally.disappearances());
    EXPECT_GT(tally.appearances(), 10U);
    EXPECT_EQ(monitor.list(), Endpoint::list());
}

TEST_F(MonitorUnderLoad, KnowsWhatTheRegistryHoldsWheneverNobodyChangesIt) {
    constexpr std::size_t rounds = 200;
    tests::provideEntryFolder();
    EndpointMonitor monitor;
    unsigned random = 1;
    std::map<unsigned, Endpoint> endpoints;
    for (std::size_t round = 0; round < rounds; ++round) {
        const Crew killed(2, [](std::size_t number, Channel& test) {
            const Endpoint endpoint(dataOf(number), tag, keyOf(number));
            test.send("published");
            test.receive();
        });
        killed.hear();
        for (int change = 0; change < 5; ++change) {
            random = random * 1664525U + 1013904223U;
            const unsigned number = (random >> 16U) % 50;
            if (endpoints.erase(number) == 0) {
                endpoints.emplace(number, Endpoint({"of", std::to_string(number)},
                                                   "tag" + std::to_string(number % 3),
                                                   "own" + std::to_string(number)));
            }
        }
        killed[round % 2].kill();
        ASSERT_EQ(monitor.list(), Endpoint::list()) << round;
        ASSERT_EQ(monitor.filter("tag1"), Endpoint::filter("tag1")) << round;
        ASSERT_EQ(monitor.filter(tag), Endpoint::filter(tag)) << round;
        for (const std::string number : {"0", "7", "49"}) {
            const std::string ofTag = "tag" + std::to_string(std::stoi(number) % 3);
            ASSERT_EQ(monitor.find(ofTag, "own" + number), Endpoint::find(ofTag, "own" + number));
        }
    }
    endpoints.clear();
    EXPECT_EQ(monitor.list(), DataPairs());
}
