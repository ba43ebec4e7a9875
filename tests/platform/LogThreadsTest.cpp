#include "tests/platform/LogTools.h"
#include "tests/support/LogCapture.h"

#include <atomic>
#include <cstdint>
#include <gtest/gtest.h>
#include <string>
#include <thread>
#include <vector>

namespace {

using tests::LogCapture;
using tests::Logger;
using tests::severity;

TEST(LogThreads, LogThroughOneLoggerWithoutLosingARecord) {
    constexpr int threadCount = 4;
    constexpr int recordCount = 500;
    const LogCapture capture("a=all");
    Logger logger("a");
    std::vector<std::jthread> threads;
    threads.reserve(threadCount);
    for (int i = 0; i < threadCount; ++i) {
        threads.emplace_back([&logger] {
            for (int j = 0; j < recordCount; ++j) {
                logger.log(severity::error, "number ", j);
            }
        });
    }
    threads.clear();

    std::vector<int> seen(recordCount);
    for (const auto& record : capture.records()) {
        ASSERT_EQ(record.message.rfind("number ", 0), 0U) << record.message;
        ++seen.at(std::stoul(record.message.substr(7)));
    }
    EXPECT_EQ(seen, std::vector<int>(recordCount, threadCount));
}

TEST(LogThreads, MakeAndUseLoggersWhileFiltersChange) {
    const LogCapture capture("");
    Logger lasting("a");
    std::atomic<bool> isOver = false;
    constexpr int threadCount = 3;
    std::vector<std::jthread> threads;
    threads.reserve(threadCount);
    for (int i = 0; i < threadCount; ++i) {
        threads.emplace_back([&] {
            while (!isOver) {
                lasting.log(severity::error, "lasting");
                Logger("b").log(severity::error, "passing");
            }
        });
    }
    for (int i = 0; i < 300; ++i) {
        tests::setFilter("a=all;b=none");
        tests::setFilter("a=none;b=error");
        tests::setFilter("");
    }
    isOver = true;
    threads.clear();

    tests::setFilter("a=all");
    lasting.log(severity::error, "the last");
    const auto records = capture.records();
    ASSERT_FALSE(records.empty());
    EXPECT_EQ(records.back(), (tests::LogRecord{"a", 512, "the last"}));
    for (const auto& record : records) {
        EXPECT_EQ(record.severity, 512U);
        EXPECT_TRUE(record.channel == "a" || record.message == "passing") << record.message;
    }
}

} // namespace
