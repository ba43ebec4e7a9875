#include "endpointregistry/NamedStringArray.h"

#include "tests/endpointregistry/NamedStringArrayTools.h"

#include <algorithm>
#include <gtest/gtest.h>
#include <string>
#include <thread>
#include <vector>

using tests::Entries;
using tests::Entry;

namespace {

class NamedStringArrayThreads : public tests::NamedStringArrayTest {};

} // namespace

TEST_F(NamedStringArrayThreads, WithObjectsOfTheirOwnShareATable) {
    constexpr unsigned threadCount = 4;
    constexpr unsigned rounds = 25;
    {
        std::vector<std::jthread> threads;
        for (unsigned thread = 0; thread < threadCount; ++thread) {
            threads.emplace_back([this, thread] {
                auto own = table.array();
                const std::string mark = "thread " + std::to_string(thread);
                for (unsigned round = 0; round < rounds; ++round) {
                    own.insert(Entry{mark, std::to_string(round)});
                    own.insert(Entry{mark, "again"});
                    EXPECT_EQ(own.filter({mark}).size(), round + 2);
                    own.erase(Entry{mark, "again"});
                }
            });
        }
    }
    Entries expected;
    for (unsigned thread = 0; thread < threadCount; ++thread) {
        for (unsigned round = 0; round < rounds; ++round) {
            expected.push_back({"thread " + std::to_string(thread), std::to_string(round)});
        }
    }
    std::sort(expected.begin(), expected.end());
    EXPECT_EQ(tests::sortedEntries(array), expected);
    EXPECT_EQ(table.dimensions().first, 100U);
    EXPECT_EQ(tests::kernelSegments().size(), 2U);
}
