#include "foundation/os/RetryFor.h"

#include <chrono>
#include <gtest/gtest.h>

using foundation::os::retryFor;
using namespace std::chrono_literals;

TEST(RetryFor, EndsWithTheFirstAttemptThatSucceeds) {
    int attempts = 0;
    EXPECT_TRUE(retryFor(1h, [&] { return ++attempts == 20; }));
    EXPECT_EQ(attempts, 20);
}

TEST(RetryFor, MakesOneAttemptWhereThereIsNoTime) {
    int attempts = 0;
    EXPECT_TRUE(retryFor(0ms, [&] { return ++attempts == 1; }));
    EXPECT_FALSE(retryFor(0ms, [&] { return ++attempts == 3; }));
    EXPECT_EQ(attempts, 2);
}

TEST(RetryFor, LooksOnceMoreWhenTheTimeIsOver) {
    const auto begin = std::chrono::steady_clock::now();
    auto last = begin;
    EXPECT_FALSE(retryFor(10ms, [&] {
        last = std::chrono::steady_clock::now();
        return false;
    }));
    EXPECT_GE(last, begin + 10ms);
}

TEST(RetryFor, SleepsInBetweenAndSoMakesFewAttempts) {
    int attempts = 0;
    EXPECT_FALSE(retryFor(100ms, [&] {
        ++attempts;
        return false;
    }));
    // Six shorter pauses, then one every 2 ms, and the attempts before and after all.
    EXPECT_GE(attempts, 1);
    EXPECT_LE(attempts, 6 + 50 + 2);
}
