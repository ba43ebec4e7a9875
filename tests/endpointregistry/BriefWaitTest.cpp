#include "endpointregistry/detail/BriefWait.h"

#include <chrono>
#include <gtest/gtest.h>

using agent::spf::endpointregistry::tryBriefly;
using namespace std::chrono_literals;

TEST(BriefWait, EndsWithTheFirstAttemptThatSucceeds) {
    int attempts = 0;
    EXPECT_TRUE(tryBriefly(1h, [&] { return ++attempts == 1000; }));
    EXPECT_EQ(attempts, 1000);
}

TEST(BriefWait, IsNoneWhereTheFirstAttemptSucceeds) {
    int attempts = 0;
    EXPECT_TRUE(tryBriefly(0ms, [&] { return ++attempts == 1; }));
    EXPECT_EQ(attempts, 1);
}

TEST(BriefWait, LooksOnceMoreHoweverLateItIs) {
    int attempts = 0;
    EXPECT_FALSE(tryBriefly(0ms, [&] { return ++attempts == 3; }));
    EXPECT_EQ(attempts, 2);
}

TEST(BriefWait, TakesNoLongerWhereEveryAttemptDoes) {
    int attempts = 0;
    EXPECT_FALSE(tryBriefly(10ms, [&] {
        const auto end = std::chrono::steady_clock::now() + 1ms;
        while (std::chrono::steady_clock::now() < end) {
        }
        return ++attempts > 1000;
    }));
    // The one before the clock starts, and one for each millisecond.
    EXPECT_LE(attempts, 11);
}
