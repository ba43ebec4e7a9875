#include "endpointregistry/Endpoint.h"

#include "tests/endpointregistry/EndpointProcesses.h"
#include "tests/endpointregistry/EndpointTools.h"
#include "tests/endpointregistry/LockedFileProcesses.h"

#include <algorithm>
#include <array>
#include <atomic>
#include <cstddef>
#include <gtest/gtest.h>
#include <string>

using namespace agent::spf::endpointregistry;
using tests::Channel;
using tests::Crew;
using tests::DataPair;

namespace {

constexpr std::size_t publisherCount = 2;
constexpr std::size_t readerCount = 2;
constexpr std::size_t publicationCount = 1024;
constexpr std::size_t sightingsWanted = 200;

const std::string tag = "tag";

/// One byte, around the end of a page and of more, and far more than is read at once.
constexpr std::array<std::size_t, 8> sizes{1,       100,       4096 - 17, 4096 - 16,
                                           200'000, 4096 + 17, 70'000,    2'000'000};
constexpr std::size_t splitCount = 4;

/// Where the data is split. Of the large sizes any two differ in several bytes of their number, and
/// half of one with half of another is none of them.
std::size_t splitOf(std::size_t size, std::size_t split) {
    const std::array<std::size_t, splitCount> splits{0x0100FF, 0xFF00, 0x00FF, size};
    return std::min(size, splits.at(split));
}

std::string keyOf(std::size_t publisher) {
    return "key " + std::to_string(publisher);
}

/// All its bytes are the same, and tell the publisher and the size.
char letterOf(std::size_t publisher, std::size_t sizeNumber) {
    return static_cast<char>('A' + publisher * sizes.size() + sizeNumber);
}

/// The entries of one size follow each other under one name: only where the data is split differs.
DataPair dataOf(std::size_t publisher, std::size_t round) {
    const std::size_t sizeNumber = round / splitCount % sizes.size();
    const std::size_t size = sizes.at(sizeNumber);
    const std::size_t split = splitOf(size, round % splitCount);
    const char letter = letterOf(publisher, sizeNumber);
    return {std::string(split, letter), std::string(size - split, letter)};
}

bool consistsOf(const std::string& text, char letter) {
    return text.find_first_not_of(letter) == std::string::npos;
}

/// Whether a publisher has ever published this.
bool isWhole(const DataPair& found, std::size_t publisher) {
    const char letter = found.first.empty() ? found.second.front() : found.first.front();
    const auto sizeNumber = static_cast<std::size_t>(letter - letterOf(publisher, 0));
    if (sizeNumber >= sizes.size() || !consistsOf(found.first, letter) ||
        !consistsOf(found.second, letter)) {
        return false;
    }
    const std::size_t size = sizes.at(sizeNumber);
    bool isSplitAsPublished = false;
    for (std::size_t split = 0; split < splitCount; ++split) {
        isSplitAsPublished = isSplitAsPublished || found.first.size() == splitOf(size, split);
    }
    return isSplitAsPublished && found.first.size() + found.second.size() == size;
}

struct Observations {
    std::atomic<std::size_t> publishing = publisherCount;
    std::atomic<bool> areBad = false;
    std::array<std::atomic<std::size_t>, publisherCount> found{};
    std::atomic<std::size_t> listed = 0;

    bool areEnough() const {
        return listed >= sightingsWanted &&
               std::all_of(found.begin(), found.end(),
                           [](const auto& count) { return count >= sightingsWanted; });
    }
};

void describe(const DataPair& found) {
    ADD_FAILURE() << "found " << found.first.size() << " and " << found.second.size()
                  << " bytes, beginning with <" << found.first.substr(0, 1) << "> and <"
                  << found.second.substr(0, 1) << ">";
}

/// Looks up one publisher's entry, and all of them, for as long as anything is published.
void observe(Observations& observations, std::size_t publisher) {
    const std::string key = keyOf(publisher);
    while (observations.publishing > 0 && !observations.areBad) {
        if (const auto found = Endpoint::find(tag, key)) {
            ++observations.found.at(publisher);
            if (!isWhole(*found, publisher)) {
                observations.areBad = true;
                describe(*found);
            }
        }
        for (const DataPair& listed : Endpoint::list()) {
            ++observations.listed;
            if (!isWhole(listed, 0) && !isWhole(listed, 1)) {
                observations.areBad = true;
                describe(listed);
            }
        }
    }
}

/// Publishes and withdraws, until the readers have seen enough of it, if they ever do.
void publish(Observations& observations, std::size_t publisher) {
    constexpr std::size_t most = 20 * publicationCount;
    const auto isOver = [&observations](std::size_t round) {
        const bool isEnough = round >= publicationCount && observations.areEnough();
        return observations.areBad || isEnough || round == most;
    };
    for (std::size_t round = 0; !isOver(round); ++round) {
        const DataPair data = dataOf(publisher, round);
        const Endpoint endpoint(data, tag, keyOf(publisher));
        ASSERT_EQ(Endpoint::find(tag, keyOf(publisher)), data) << "in round " << round;
    }
}

class EndpointReadingRace : public tests::RegistryTest {};

} // namespace

TEST_F(EndpointReadingRace, WithPublishersThatComeAndGoGivesWholeDataOrNone) {
    tests::provideEntryFolder();
    const tests::SharedWithChildren<Observations> observations;
    const Crew readers(readerCount, [&](std::size_t number, Channel&) {
        observe(*observations, number % publisherCount);
    });
    const Crew publishers(publisherCount, [&](std::size_t number, Channel&) {
        publish(*observations, number);
        --observations->publishing;
    });
    readers.expectSuccess();
    publishers.expectSuccess();
    EXPECT_TRUE(observations->areEnough()) << "or this proves nothing";
}

namespace {

const std::string joined(200'000, 'j');

struct Turns {
    std::atomic<bool> isOver = false;
    std::atomic<std::size_t> seen = 0;
};

/// Publishes data that differs in nothing but where it is split, whenever it is told to.
void publishInTurns(Channel& test, std::size_t number) {
    for (std::size_t round = number;; ++round) {
        test.receive();
        const std::size_t split = splitOf(joined.size(), round % splitCount);
        Endpoint endpoint({joined.substr(split), joined.substr(0, split)}, tag, keyOf(number));
        test.send("published");
        test.receive();
        endpoint.reset();
        test.send("withdrawn");
    }
}

bool isPublished(const DataPair& found) {
    bool isSplitAsPublished = false;
    for (std::size_t split = 0; split < splitCount; ++split) {
        isSplitAsPublished =
            isSplitAsPublished || found.second.size() == splitOf(joined.size(), split);
    }
    return isSplitAsPublished && found.first + found.second == joined;
}

} // namespace

TEST_F(EndpointReadingRace, WithSplitsOfTheSameDataFindsOneThatWasPublished) {
    constexpr int turnCount = 1000;
    constexpr int most = 20 * turnCount;
    tests::provideEntryFolder();
    const tests::SharedWithChildren<Turns> turns;
    const Crew readers(readerCount, [&](std::size_t, Channel&) {
        while (!turns->isOver && !testing::Test::HasFailure()) {
            for (const DataPair& found : Endpoint::filter(tag)) {
                ++turns->seen;
                if (!isPublished(found)) {
                    describe(found);
                }
            }
        }
    });
    // The same data twice at once would be a duplicate: one publishes when the other has ended.
    const Crew publishers(publisherCount,
                          [](std::size_t number, Channel& test) { publishInTurns(test, number); });
    for (int turn = 0; turn < turnCount || (turns->seen == 0 && turn < most); ++turn) {
        tests::ForkedProcess& publisher = publishers[static_cast<std::size_t>(turn) / 2 % 2];
        publisher.channel().send("publish");
        ASSERT_EQ(publisher.channel().receive(), "published");
        publisher.channel().send("withdraw");
        ASSERT_EQ(publisher.channel().receive(), "withdrawn");
    }
    turns->isOver = true;
    readers.expectSuccess();
    EXPECT_GT(turns->seen, 0U) << "or this proves nothing";
    EXPECT_EQ(Endpoint::list(), tests::DataPairs());
}
