#include "tests/platform/LogTools.h"
#include "tests/support/LogCapture.h"

#include <gtest/gtest.h>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

namespace {

using foundation::log::severityNames;
using tests::Logger;
using tests::severity;

/// The names of the severities that the logger writes.
std::vector<std::string> enabledIn(const Logger& logger) {
    std::vector<std::string> names;
    for (const auto& [name, level] : severityNames) {
        if (logger.isEnabled(level)) {
            names.emplace_back(name);
        }
    }
    return names;
}

const std::vector<std::string> everySeverity{"finest",  "finer", "trace",  "debug",
                                             "caught",  "info",  "notice", "attention",
                                             "warning", "error", "fatal"};

class LogFilter : public testing::Test {
private:
    tests::FilterReset reset;
};

TEST_F(LogFilter, EnablesNothingBeforeItIsSet) {
    const Logger logger("a::b");
    EXPECT_TRUE(enabledIn(logger).empty());
}

TEST_F(LogFilter, HoldsForLoggersThatExistAlready) {
    const Logger logger("a::b");
    tests::setFilter("a::b=all");
    EXPECT_EQ(enabledIn(logger), everySeverity);
}

TEST_F(LogFilter, HoldsForLoggersThatAreMadeLater) {
    tests::setFilter("a::b=error");
    const Logger logger("a::b");
    EXPECT_EQ(enabledIn(logger), (std::vector<std::string>{"error", "fatal"}));
}

TEST_F(LogFilter, HoldsForEveryLoggerOfAChannel) {
    const Logger first("a::b");
    const Logger second("a::b");
    tests::setFilter("a::b=fatal");
    EXPECT_EQ(enabledIn(first), std::vector<std::string>{"fatal"});
    EXPECT_EQ(enabledIn(second), std::vector<std::string>{"fatal"});
}

TEST_F(LogFilter, NamesAChannelExactly) {
    tests::setFilter("a::b=all");
    for (const std::string channel : {"a", "a::", "a::bc", "a::b::c", "A::b", "::b", "b", ""}) {
        EXPECT_TRUE(enabledIn(Logger(channel)).empty()) << channel;
    }
}

TEST_F(LogFilter, GivesEachChannelItsOwnLevel) {
    tests::setFilter("a=none;b=fatal;c=all");
    EXPECT_TRUE(enabledIn(Logger("a")).empty());
    EXPECT_EQ(enabledIn(Logger("b")), std::vector<std::string>{"fatal"});
    EXPECT_EQ(enabledIn(Logger("c")), everySeverity);
    EXPECT_TRUE(enabledIn(Logger("d")).empty());
}

TEST_F(LogFilter, EnablesTheNamedSeverityAndAllGraverOnes) {
    for (std::size_t i = 0; i < severityNames.size(); ++i) {
        const std::vector<std::string> expected(
            everySeverity.begin() + static_cast<std::ptrdiff_t>(i), everySeverity.end());
        const auto& [name, level] = severityNames.at(i);
        tests::setFilter("a=" + std::string(name));
        EXPECT_EQ(enabledIn(Logger("a")), expected) << name;
        tests::setFilter("a=" + std::to_string(static_cast<std::uint32_t>(level)));
        EXPECT_EQ(enabledIn(Logger("a")), expected) << static_cast<std::uint32_t>(level);
    }
}

TEST_F(LogFilter, TakesTheLaterOfTwoPairsForOneChannel) {
    const Logger logger("a");
    tests::setFilter("a=all;a=none");
    EXPECT_TRUE(enabledIn(logger).empty());
    tests::setFilter("a=none;a=all");
    EXPECT_EQ(enabledIn(logger), everySeverity);
}

TEST_F(LogFilter, ReplacesTheFilterThatWasSetBefore) {
    const Logger first("a");
    const Logger second("b");
    tests::setFilter("a=all");
    tests::setFilter("b=all");
    EXPECT_TRUE(enabledIn(first).empty());
    EXPECT_EQ(enabledIn(second), everySeverity);
}

TEST_F(LogFilter, DisablesEverythingWhenItIsEmpty) {
    const Logger logger("a");
    tests::setFilter("a=all");
    tests::setFilter("");
    EXPECT_TRUE(enabledIn(logger).empty());
    EXPECT_TRUE(enabledIn(Logger("a")).empty());
}

TEST_F(LogFilter, ChangesNothingWhenItCannotBeRead) {
    const Logger logger("a");
    tests::setFilter("a=error");
    for (const std::string unreadable :
         {"a", "=all", "a=", "a=loud", "a=3", "a=-1", "a=2048", "a=512x", "a=all;b", "a=all;b=loud",
          "b=loud;a=all", "a all", "a=4294967808"}) {
        EXPECT_THROW(tests::setFilter(unreadable), std::invalid_argument) << unreadable;
        EXPECT_EQ(enabledIn(logger), (std::vector<std::string>{"error", "fatal"})) << unreadable;
        EXPECT_TRUE(enabledIn(Logger("b")).empty()) << unreadable;
    }
}

TEST_F(LogFilter, GivesWayToAMaskUntilItChanges) {
    Logger logger("a");
    tests::setFilter("a=fatal");
    logger.setEnabledMask(static_cast<std::uint32_t>(severity::finest));
    EXPECT_EQ(enabledIn(logger), std::vector<std::string>{"finest"});
    tests::setFilter("a=fatal");
    EXPECT_EQ(enabledIn(logger), std::vector<std::string>{"fatal"});
}

TEST_F(LogFilter, ForgetsALoggerThatIsGone) {
    { const Logger gone("a"); }
    tests::setFilter("a=all");
    EXPECT_EQ(enabledIn(Logger("a")), everySeverity);
}

} // namespace
