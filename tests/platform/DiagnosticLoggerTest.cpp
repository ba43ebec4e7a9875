#include "tests/platform/LogTools.h"
#include "tests/support/LogCapture.h"

#include <boost/date_time/posix_time/posix_time_types.hpp>
#include <boost/log/attributes/value_extraction.hpp>
#include <cstdint>
#include <gtest/gtest.h>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

namespace {

using tests::LogCapture;
using tests::Logger;
using tests::LogRecord;
using tests::severity;

TEST(DiagnosticLogger, KnowsItsChannel) {
    EXPECT_EQ(Logger("some::channel").channel(), "some::channel");
    EXPECT_EQ(Logger("").channel(), "");
}

TEST(DiagnosticLogger, JoinsThePiecesOfAMessage) {
    const LogCapture capture("a=all");
    Logger logger("a");
    logger.log(severity::error, "open <", std::string("/p"), ">. (Error ", 13,
               std::string_view(")"));
    logger.log(severity::error, -1, ' ' + std::string(), UINT64_MAX);
    logger.log(severity::error);
    EXPECT_EQ(capture.records(), (std::vector<LogRecord>{{"a", 512, "open </p>. (Error 13)"},
                                                         {"a", 512, "-1 18446744073709551615"},
                                                         {"a", 512, ""}}));
}

TEST(DiagnosticLogger, WritesTheSeverityAsABit) {
    const LogCapture capture("a=all");
    Logger logger("a");
    for (const auto& [name, level] : foundation::log::severityNames) {
        logger.log(level, name);
    }
    const std::vector<LogRecord> expected{
        {"a", 1, "finest"},    {"a", 2, "finer"},   {"a", 4, "trace"},   {"a", 8, "debug"},
        {"a", 16, "caught"},   {"a", 32, "info"},   {"a", 64, "notice"}, {"a", 128, "attention"},
        {"a", 256, "warning"}, {"a", 512, "error"}, {"a", 1024, "fatal"}};
    EXPECT_EQ(capture.records(), expected);
}

TEST(DiagnosticLogger, WritesOnlyWhatIsEnabled) {
    const LogCapture capture("a=warning");
    Logger logger("a");
    Logger other("b");
    logger.log(severity::attention, "too small");
    logger.log(severity::warning, "just so");
    other.log(severity::fatal, "not named");
    EXPECT_EQ(capture.records(), (std::vector<LogRecord>{{"a", 256, "just so"}}));
}

/// A text that tells when it is looked at.
struct Watched {
    operator std::string_view() const {
        ++looks;
        return "text";
    }
    int& looks;
};

TEST(DiagnosticLogger, FormsNothingThatIsNotWritten) {
    const LogCapture capture("a=error");
    Logger logger("a");
    int looks = 0;
    logger.log(severity::warning, Watched{looks});
    EXPECT_EQ(looks, 0);
    logger.log(severity::error, Watched{looks});
    EXPECT_EQ(looks, 1);
}

TEST(DiagnosticLogger, StampsItsRecordsWithTheLocalTime) {
    using boost::posix_time::microsec_clock;
    using boost::posix_time::ptime;
    std::vector<ptime> times;
    const tests::ApplicationSink sink([&times](const boost::log::record_view& record) {
        times.push_back(boost::log::extract_or_throw<ptime>("TimeStamp", record));
    });
    const LogCapture capture("a=all");
    const ptime before = microsec_clock::local_time();
    Logger("a").log(severity::error, "now");
    const ptime after = microsec_clock::local_time();
    ASSERT_EQ(times.size(), 1U);
    EXPECT_GE(times.front(), before);
    EXPECT_LE(times.front(), after);
}

TEST(DiagnosticLogger, PassesOnWhatASinkOfTheApplicationThrows) {
    const LogCapture capture("a=all");
    Logger logger("a");
    {
        const tests::ApplicationSink sink(
            [](const boost::log::record_view& /*record*/) { throw std::domain_error("sink"); });
        EXPECT_THROW(logger.log(severity::error, "text"), std::domain_error);
    }
    EXPECT_NO_THROW(logger.log(severity::error, "text"));
}

TEST(DiagnosticLogger, WritesNothingWhileTheApplicationHasLoggingOff) {
    const LogCapture capture("a=all");
    Logger logger("a");
    boost::log::core::get()->set_logging_enabled(false);
    logger.log(severity::error, "unheard");
    boost::log::core::get()->set_logging_enabled(true);
    logger.log(severity::error, "heard");
    EXPECT_EQ(capture.records(), (std::vector<LogRecord>{{"a", 512, "heard"}}));
}

} // namespace
