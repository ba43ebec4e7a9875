#include "endpointregistry/Endpoint.h"

#include "tests/endpointregistry/EndpointTools.h"

#include <algorithm>
#include <atomic>
#include <gtest/gtest.h>
#include <optional>
#include <string>
#include <thread>
#include <vector>

using namespace agent::spf::endpointregistry;
using tests::DataPair;
using tests::DataPairs;
using tests::PlantedEntry;

namespace {

constexpr int publisherCount = 4;
constexpr int readerCount = 8;
constexpr int rounds = 100;

const std::string tag = "tag";

std::string keyOf(int number) {
    return "key " + std::to_string(number);
}

DataPair dataOf(int number) {
    return {"data of ", std::to_string(number)};
}

bool isSomebodys(const DataPair& data) {
    for (int number = 0; number < publisherCount; ++number) {
        if (data == dataOf(number)) {
            return true;
        }
    }
    return false;
}

class EndpointThreads : public tests::RegistryTest {};

} // namespace

TEST_F(EndpointThreads, LookUpAtOnceWhilePublishersComeAndGo) {
    std::atomic<int> publishing = publisherCount;
    std::atomic<int> seen = 0;
    std::atomic<int> wrong = 0;
    std::vector<std::thread> threads;
    threads.reserve(publisherCount + readerCount);
    for (int number = 0; number < publisherCount; ++number) {
        threads.emplace_back([&, number] {
            // Goes on until somebody saw something, or the test would prove nothing.
            for (int round = 0; round < rounds || seen == 0; ++round) {
                const Endpoint endpoint(dataOf(number), tag, keyOf(number));
                wrong += Endpoint::find(tag, keyOf(number)) == dataOf(number) ? 0 : 1;
            }
            --publishing;
        });
    }
    for (int reader = 0; reader < readerCount; ++reader) {
        threads.emplace_back([&, reader] {
            while (publishing > 0) {
                const int number = reader % publisherCount;
                if (const auto found = Endpoint::find(tag, keyOf(number))) {
                    ++seen;
                    wrong += found == dataOf(number) ? 0 : 1;
                }
                const DataPairs all = Endpoint::list();
                wrong += std::all_of(all.begin(), all.end(), isSomebodys) ? 0 : 1;
            }
        });
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
    EXPECT_EQ(wrong, 0);
}

TEST_F(EndpointThreads, ClearUpOneDeadEntryTogether) {
    const DataPair data("a", "b");
    for (int round = 0; round < rounds; ++round) {
        const PlantedEntry dead(tests::entryName(data, tag, "key", tests::noProcess),
                                tests::segmentBytes(data));
        std::atomic<int> found = 0;
        std::vector<std::thread> readers;
        readers.reserve(readerCount);
        for (int reader = 0; reader < readerCount; ++reader) {
            readers.emplace_back([&] { found += Endpoint::find(tag, "key") ? 1 : 0; });
        }
        for (std::thread& reader : readers) {
            reader.join();
        }
        EXPECT_EQ(found, 0);
        EXPECT_FALSE(dead.hasFile());
        EXPECT_FALSE(dead.hasSegment());
    }
}

TEST_F(EndpointThreads, PublishSynonymsOfWhichOneWins) {
    for (int round = 0; round < rounds; ++round) {
        std::vector<std::optional<Endpoint>> endpoints(readerCount);
        std::vector<std::thread> publishers;
        publishers.reserve(readerCount);
        for (int number = 0; number < readerCount; ++number) {
            publishers.emplace_back(
                [&endpoint = endpoints.at(static_cast<std::size_t>(number)), number] {
                    try {
                        endpoint.emplace(dataOf(number), tag, "key");
                    } catch (const Endpoint::DuplicateEndpointError&) {
                        endpoint.reset();
                    }
                });
        }
        for (std::thread& publisher : publishers) {
            publisher.join();
        }
        EXPECT_EQ(std::count_if(endpoints.begin(), endpoints.end(),
                                [](const auto& endpoint) { return endpoint.has_value(); }),
                  1);
        EXPECT_EQ(Endpoint::list().size(), 1U);
    }
}
