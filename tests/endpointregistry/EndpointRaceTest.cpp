#include "endpointregistry/Endpoint.h"

#include "tests/endpointregistry/EndpointFolderWatch.h"
#include "tests/endpointregistry/EndpointProcesses.h"
#include "tests/endpointregistry/EndpointTools.h"
#include "tests/endpointregistry/LockedFileProcesses.h"
#include "tests/endpointregistry/LockedFileTools.h"

#include <algorithm>
#include <atomic>
#include <exception>
#include <functional>
#include <gtest/gtest.h>
#include <list>
#include <optional>
#include <string>
#include <unistd.h>
#include <vector>

using namespace agent::spf::endpointregistry;
using tests::Channel;
using tests::Crew;
using tests::DataPair;
using tests::DataPairs;
using tests::PlantedEntry;
using tests::StartSignal;

namespace {

constexpr std::size_t publisherCount = 32;
constexpr int raceRounds = 200;
constexpr std::size_t readerCount = 4;
constexpr int republications = 3000;
constexpr int takeOverRounds = 1000;

const DataPair data("ab", "c");
const std::string tag = "tag";
const std::string key = "key";

class EndpointRace : public tests::RegistryTest {};

struct Publication {
    DataPair data;
    std::string key;
};
using OfPublisher = std::function<Publication(const std::string& number)>;

/// Publishes, if it can, and tells how that went.
std::string publish(const Publication& publication, Endpoint& endpoint) {
    try {
        endpoint = Endpoint(publication.data, tag, publication.key);
        // Others may be there, too, until they have withdrawn.
        const DataPairs all = Endpoint::list();
        const bool isThere = std::find(all.begin(), all.end(), publication.data) != all.end();
        return isThere ? "won" : "won and not found";
    } catch (const Endpoint::DuplicateEndpointError&) {
        return "lost";
    } catch (const std::exception& error) {
        return error.what();
    }
}

enum class Before { nothing, aDeadSynonym };

/// Has many processes publish at once, again and again, and expects one of them to win each time.
void expectOneWinnerEach(const OfPublisher& publicationOf, Before before = Before::nothing) {
    const StartSignal start;
    const Crew publishers(publisherCount, [&](std::size_t number, Channel& test) {
        while (true) {
            start.await();
            Endpoint endpoint;
            test.send(publish(publicationOf(std::to_string(number)), endpoint));
            test.receive();
            endpoint.reset();
            test.send("withdrawn");
        }
    });
    for (int round = 0; round < raceRounds; ++round) {
        std::optional<PlantedEntry> dead;
        if (before == Before::aDeadSynonym) {
            dead.emplace(tests::entryName(data, tag, key, tests::noProcess),
                         tests::segmentBytes(data));
        }
        start.give(publisherCount);
        const std::vector<std::string> results = publishers.hear();
        const auto count = [&results](const std::string& result) {
            return std::count(results.begin(), results.end(), result);
        };
        ASSERT_EQ(count("won"), 1) << "in round " << round;
        ASSERT_EQ(count("lost"), publisherCount - 1) << "in round " << round;
        EXPECT_EQ(Endpoint::list().size(), 1U);
        EXPECT_EQ(tests::entryFiles().size(), 1U);
        publishers.tell("withdraw");
        publishers.hear();
    }
}

} // namespace

TEST_F(EndpointRace, ForOneKeyHasOneWinner) {
    expectOneWinnerEach([](const std::string& number) {
        return Publication{{"data of", number}, key};
    });
}

TEST_F(EndpointRace, ForTheSameDataHasOneWinner) {
    expectOneWinnerEach([](const std::string& number) { return Publication{data, number}; });
}

TEST_F(EndpointRace, ForTheSameKeyAndDataHasOneWinner) {
    expectOneWinnerEach([](const std::string&) { return Publication{data, key}; });
}

TEST_F(EndpointRace, ForWhatADeadPublisherLeftHasOneWinner) {
    expectOneWinnerEach(
        [](const std::string& number) {
            return Publication{data, number};
        },
        Before::aDeadSynonym);
}

namespace {

struct Observations {
    std::atomic<bool> isOver = false;
    std::atomic<int> sightings = 0;
    std::atomic<int> wrong = 0;
};

/// Looks an endpoint up until told to stop: it is there as published, or it is not there.
void observe(Observations& observations) {
    while (!observations.isOver) {
        if (const auto found = Endpoint::find(tag, key)) {
            ++observations.sightings;
            observations.wrong += found == data ? 0 : 1;
        }
        const DataPairs all = Endpoint::list();
        observations.wrong += all.empty() || all == DataPairs{data} ? 0 : 1;
    }
}

} // namespace

TEST_F(EndpointRace, OfAPublisherAndReadersIsLostByNobody) {
    tests::provideEntryFolder();
    const tests::SharedWithChildren<Observations> observations;
    const Crew readers(readerCount, [&](std::size_t, Channel&) { observe(*observations); });
    // Nothing of a reader's may appear, and nothing of the publisher's vanish before its time.
    tests::FolderWatch watch({tests::entryFolder()});
    const std::string name = tests::entryName(data, tag, key, ::getpid());
    const std::vector<std::string> comesAndGoes{"+" + name, "-" + name};
    // Goes on until somebody saw it, or the test would prove nothing.
    for (int i = 0; i < republications || observations->sightings == 0; ++i) {
        Endpoint endpoint;
        ASSERT_NO_THROW(endpoint = Endpoint(data, tag, key)) << "in round " << i;
        ASSERT_EQ(Endpoint::find(tag, key), data) << "in round " << i;
        endpoint.reset();
        ASSERT_EQ(watch.changes(), comesAndGoes) << "in round " << i;
    }
    observations->isOver = true;
    readers.expectSuccess();
    EXPECT_EQ(observations->wrong, 0);
}

TEST_F(EndpointRace, OfLookupsIsNeverLostByWhatIsPublishedThroughout) {
    const Endpoint endpoint(data, tag, key);
    const Crew readers(readerCount, [](std::size_t, Channel&) {
        for (int i = 0; i < republications / 3; ++i) {
            ASSERT_EQ(Endpoint::find(tag, key), data);
            ASSERT_EQ(Endpoint::list(), DataPairs{data});
        }
    });
    readers.expectSuccess();
}

namespace {

/// Looks around whenever it is told to, and so clears up after the dead.
void clearUp(const StartSignal& start, Channel& test) {
    while (true) {
        start.await();
        Endpoint::list();
        test.send("looked");
        test.receive();
    }
}

} // namespace

TEST_F(EndpointRace, OfAPublisherAndThoseWhoClearUpIsLostByNobody) {
    constexpr int deadCount = 50;
    const StartSignal start;
    const Crew readers(2, [&](std::size_t, Channel& test) { clearUp(start, test); });
    for (int round = 0; round < raceRounds; ++round) {
        // What a publisher leaves that was started again and again only to crash.
        std::list<PlantedEntry> dead;
        for (int i = 0; i < deadCount; ++i) {
            dead.emplace_back(tests::entryName(data, tag, key, tests::noProcess - i),
                              tests::segmentBytes(data));
        }
        start.give(readers.size());
        Endpoint endpoint;
        EXPECT_NO_THROW(endpoint = Endpoint(data, tag, key)) << "in round " << round;
        readers.hear();
        readers.tell("go on");
        endpoint.reset();
        EXPECT_EQ(Endpoint::list(), DataPairs());
    }
}

TEST_F(EndpointRace, ForADeadEntryIsNotLostByAPublisherOfTheSameName) {
    const StartSignal start;
    const Crew readers(readerCount, [&](std::size_t, Channel& test) { clearUp(start, test); });
    const std::string name = tests::entryName(data, tag, key, ::getpid());
    for (int round = 0; round < takeOverRounds; ++round) {
        const PlantedEntry dead(name, tests::segmentBytes(data));
        start.give(readers.size());
        if (round % 2 == 1) {
            // Just when one has cleared up, and others are still about to.
            tests::waitUntil([&dead] { return !dead.hasFile(); }, "the dead entry is cleared up");
        }
        Endpoint endpoint;
        ASSERT_NO_THROW(endpoint = Endpoint(data, tag, key)) << "in round " << round;
        EXPECT_EQ(Endpoint::find(tag, key), data) << "in round " << round;
        readers.hear();
        EXPECT_EQ(Endpoint::find(tag, key), data) << "in round " << round;
        EXPECT_EQ(tests::entryFiles(), std::vector<std::string>{name}) << "in round " << round;
        readers.tell("go on");
    }
}

TEST_F(EndpointRace, OfLookupsIsNotLostByWhatLivesAmongManyThatComeAndGo) {
    constexpr int crowd = 60;
    const tests::SharedWithChildren<Observations> observations;
    // In the midst of others, so that it is behind the first piece of the listing in any order.
    std::list<Endpoint> lasting;
    for (int i = 0; i < crowd; ++i) {
        lasting.emplace_back(DataPair("lasting", std::to_string(i)), tag, std::to_string(i));
        if (i == crowd / 2) {
            lasting.emplace_back(data, tag, key);
        }
    }
    const Crew others(2, [&](std::size_t number, Channel&) {
        while (!observations->isOver) {
            std::list<Endpoint> endpoints;
            for (int i = 0; i < crowd; ++i) {
                const std::string name = std::to_string(number) + "/" + std::to_string(i);
                endpoints.emplace_back(DataPair(name, ""), tag, name);
            }
            ++observations->sightings;
        }
    });
    // Goes on until others came and went, or the test would prove nothing.
    for (int i = 0; i < republications || observations->sightings < 10; ++i) {
        ASSERT_EQ(Endpoint::find(tag, key), data) << "in round " << i;
    }
    observations->isOver = true;
    others.expectSuccess();
}
