#include "endpointregistry/Endpoint.h"

#include "tests/endpointregistry/EndpointProcesses.h"
#include "tests/endpointregistry/EndpointTools.h"
#include "tests/endpointregistry/LockedFileProcesses.h"

#include <atomic>
#include <cstddef>
#include <gtest/gtest.h>
#include <optional>
#include <string>
#include <vector>

using namespace agent::spf::endpointregistry;
using tests::Channel;
using tests::Crew;
using tests::DataPair;

namespace {

constexpr std::size_t publisherCount = 4;
constexpr std::size_t readerCount = 2;
constexpr int winsWanted = 300;
constexpr int killedPublishers = 200;

const std::string tag = "tag";
const std::string key = "key";

DataPair dataOf(std::size_t number) {
    return {"publisher", std::to_string(number)};
}

struct Observations {
    std::atomic<int> wins = 0;
    std::atomic<bool> areBad = false;
    std::atomic<bool> haveEnded = false;
};

class HintRace : public tests::RegistryTest {};

} // namespace

TEST_F(HintRace, OfPublishersOfOneKeyHasEachFindItself) {
    const tests::SharedWithChildren<Observations> observations;
    {
        const Crew publishers(publisherCount, [&](std::size_t number, Channel&) {
            while (observations->wins < winsWanted) {
                try {
                    const Endpoint endpoint(dataOf(number), tag, key);
                    // Perhaps what another has put up, who withdraws it in a moment.
                    const auto found = Endpoint::find(tag, key);
                    if (!found) {
                        observations->areBad = true;
                    }
                    ++observations->wins;
                } catch (const Endpoint::DuplicateEndpointError&) {
                    continue; // Another has the key.
                }
            }
        });
        const Crew readers(readerCount, [&](std::size_t, Channel&) {
            while (!observations->haveEnded) {
                const auto found = Endpoint::find(tag, key);
                if (found && found->first != "publisher") {
                    observations->areBad = true;
                }
            }
        });
        publishers.expectSuccess();
        observations->haveEnded = true;
        readers.expectSuccess();
    }
    EXPECT_FALSE(observations->areBad);
    EXPECT_EQ(Endpoint::find(tag, key), std::nullopt);
}

TEST_F(HintRace, OfKilledPublishersAndReadersShowsNoDeadEntry) {
    const tests::SharedWithChildren<Observations> observations;
    const Crew readers(readerCount, [&](std::size_t, Channel&) {
        while (!observations->haveEnded) {
            Endpoint::find(tag, key);
        }
    });
    for (std::size_t round = 0; round < killedPublishers; ++round) {
        const DataPair own = dataOf(round);
        tests::ForkedProcess publisher([&](Channel& test) {
            const Endpoint endpoint(own, tag, key);
            test.send("published");
            test.receive();
        });
        publisher.channel().receive();
        ASSERT_EQ(Endpoint::find(tag, key), own);
        publisher.kill();
        ASSERT_EQ(Endpoint::find(tag, key), std::nullopt);
    }
    observations->haveEnded = true;
    readers.expectSuccess();
    EXPECT_EQ(Endpoint::list(), tests::DataPairs());
}
