#include "endpointregistry/Endpoint.h"

#include "tests/endpointregistry/EndpointProcesses.h"
#include "tests/endpointregistry/LockedFileProcesses.h"
#include "tests/endpointregistry/LockedFileTools.h"
#include "tests/endpointregistry/SharingTools.h"
#include "tests/support/TestAccounts.h"

#include <algorithm>
#include <array>
#include <atomic>
#include <cstddef>
#include <gtest/gtest.h>
#include <string>

using namespace agent::spf::endpointregistry;
using tests::Channel;
using tests::DataPair;
using tests::DataPairs;

namespace {

namespace accounts = tests::accounts;
using accounts::anna;
using accounts::ben;
using accounts::friends;

const std::string tag = "tag";

constexpr std::size_t racerCount = 4;
constexpr int rounds = 300;

struct Progress {
    std::atomic<std::size_t> racing = racerCount;
    /// How often a racer has made its entry appear and vanish; odd while it is there.
    std::array<std::atomic<unsigned>, racerCount> changes{};
    std::atomic<unsigned> complaints = 0;
};

DataPair dataOfRacer(std::size_t racer) {
    return {"racer", std::to_string(racer)};
}

/// Shares and withdraws all the time, and looks whether its entry is there when it should be.
void race(std::size_t number, Progress& progress) {
    accounts::become(number % 2 == 0 ? anna : ben);
    Endpoint endpoint(dataOfRacer(number), tag, std::to_string(number));
    const auto isListed = [number] {
        const DataPairs all = Endpoint::list({friends});
        return std::count(all.begin(), all.end(), dataOfRacer(number)) == 1;
    };
    for (int round = 0; round < rounds; ++round) {
        endpoint.addTrustees({friends});
        ++progress.changes.at(number);
        progress.complaints += isListed() ? 0 : 1;
        ++progress.changes.at(number);
        endpoint.removeTrustees({friends});
        progress.complaints += isListed() ? 1 : 0;
    }
    --progress.racing;
}

/// As anna or ben: lists until all is over: whoever was there all the time is found, and nothing
/// else than racers.
void watch(std::size_t number, Progress& progress) {
    accounts::become(number % 2 == 0 ? anna : ben);
    while (progress.racing != 0) {
        std::array<unsigned, racerCount> before{};
        std::copy(progress.changes.begin(), progress.changes.end(), before.begin());
        const DataPairs all = Endpoint::list({friends});
        for (std::size_t racer = 0; racer < racerCount; ++racer) {
            const bool wasThere =
                before.at(racer) % 2 == 1 && progress.changes.at(racer) == before.at(racer);
            const bool isFound = std::count(all.begin(), all.end(), dataOfRacer(racer)) == 1;
            progress.complaints += wasThere && !isFound ? 1 : 0;
        }
        progress.complaints += std::any_of(all.begin(), all.end(), [](const DataPair& found) {
            return found.first != "racer" || found.second.size() != 1;
        });
        std::size_t rows = 0;
        for (const auto& row : tests::rowsOf(friends)) {
            rows += row.size() == 3 && row[1] == "racer" ? 1U : 100U;
        }
        progress.complaints += rows <= racerCount ? 0 : 1;
    }
}

class EndpointSharingRace : public tests::SharingTest {};

} // namespace

TEST_F(EndpointSharingRace, NeverHidesWhatIsSharedNorShowsWhatIsNot) {
    const tests::SharedWithChildren<Progress> progress;
    tests::Processes watchers(2, [&progress](std::size_t number) { watch(number, *progress); });
    tests::Processes racers(racerCount,
                            [&progress](std::size_t number) { race(number, *progress); });
    racers.expectSuccess();
    watchers.expectSuccess();
    EXPECT_EQ(progress->complaints, 0U);
    tests::as(ben, [] { tests::expectNothingShared(friends); });
}

TEST_F(EndpointSharingRace, LosesNobodyButThoseWhoAreKilledInIt) {
    constexpr int deaths = 60;
    const auto shareAgainAndAgain = [](const std::string& user, Channel& test) {
        accounts::become(user);
        Endpoint::list();
        Endpoint endpoint({"racer", user}, tag, user);
        test.send("begun");
        for (;;) {
            endpoint.addTrustees({friends});
            endpoint.removeTrustees({friends});
        }
    };
    tests::Sharer lasting(ben, {"lasting", "data"}, tag, "lasting", {friends});
    const tests::ForkedProcess busy([&](Channel& test) { shareAgainAndAgain(ben, test); });
    for (int death = 0; death < deaths; ++death) {
        tests::ForkedProcess doomed([&](Channel& test) { shareAgainAndAgain(anna, test); });
        doomed.channel().receive();
        tests::as(ben, [] { Endpoint::list({friends}); });
        doomed.kill();
        tests::as(ben, [] {
            DataPairs all = Endpoint::list({friends});
            std::erase(all, DataPair("racer", ben));
            EXPECT_EQ(all, (DataPairs{{"lasting", "data"}}));
            for (const auto& row : tests::rowsOf(friends)) {
                EXPECT_NE(row.at(2), anna);
            }
        });
    }
    lasting.end();
}

TEST_F(EndpointSharingRace, ToBeTheFirstIsWonByAll) {
    static constexpr std::size_t memberCount = 6;
    static constexpr int firstUses = 40;
    const tests::StartSignal start;
    const tests::Crew members(memberCount, [&start](std::size_t number, Channel& test) {
        accounts::become(number % 2 == 0 ? anna : ben);
        for (int round = 0; round < firstUses; ++round) {
            Endpoint endpoint(dataOfRacer(number), tag, std::to_string(number));
            test.send("ready");
            start.await();
            endpoint.addTrustees({friends});
            test.send("shared");
            test.receive();
            EXPECT_EQ(Endpoint::list({friends}).size(), memberCount);
            EXPECT_EQ(tests::rowsOf(friends).size(), memberCount);
            test.send("listed");
            test.receive();
            endpoint.reset();
            test.send("withdrawn");
            test.receive();
        }
    });
    for (int round = 0; round < firstUses; ++round) {
        members.hear();
        start.give(memberCount);
        members.hear();
        members.tell("list");
        members.hear();
        members.tell("withdraw");
        members.hear();
        // The lock files of tables stay, and the empty table.
        EXPECT_EQ(tests::sharedEntries(friends), tests::Names());
        clearMachine();
        tests::provideSharedFolder();
        members.tell("again");
    }
    members.expectSuccess();
}

TEST_F(EndpointSharingRace, LeavesFewSegmentsAfterManyTurnsOfTwoUsers) {
    constexpr int cycles = 1000;
    const tests::Crew members(2, [](std::size_t number, Channel& test) {
        accounts::become(number == 0 ? anna : ben);
        Endpoint endpoint(dataOfRacer(number), tag, std::to_string(number));
        for (std::string order = test.receive(); order == "go on"; order = test.receive()) {
            endpoint.setTrustees(endpoint.getTrustees().empty() ? tests::Trustees{friends}
                                                                : tests::Trustees{});
            test.send("done");
        }
    });
    const auto turn = [&members](std::size_t member) {
        members[member].channel().send("go on");
        members[member].channel().receive();
    };
    for (int cycle = 0; cycle < cycles; ++cycle) {
        // One shares when the other does, too, and withdraws first: tables are made by both.
        for (const std::size_t member : {0U, 1U, 0U, 1U}) {
            turn(member);
        }
    }
    // Base and container, and what either made last and the other replaced.
    EXPECT_LE(tests::kernelSegments().size(), 4U);
    EXPECT_EQ(tests::kernelSegments().size(), tests::records(friends).size());
    members.tell("end");
    members.expectSuccess();
    tests::as(ben, [] { tests::expectNothingShared(friends); });
    for (const std::string& user : {anna, ben}) {
        tests::useShortly(user, friends);
    }
    // The base, the container, and anna's last one, which she is told of by a record without a
    // name.
    const auto expectNoMore = [] {
        tests::Names records = tests::records(friends);
        EXPECT_LE(tests::kernelSegments().size(), 3U);
        EXPECT_EQ(tests::kernelSegments().size(), records.size());
        std::erase_if(records, [](const std::string& name) { return name.front() == '.'; });
        EXPECT_EQ(records.size(), 2U);
    };
    expectNoMore();
    tests::useShortly(anna, friends);
    expectNoMore();
}
