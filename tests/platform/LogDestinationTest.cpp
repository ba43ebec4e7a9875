#include "tests/platform/LogTools.h"

#include <algorithm>
#include <boost/log/attributes/value_extraction.hpp>
#include <boost/log/sources/logger.hpp>
#include <boost/log/sources/record_ostream.hpp>
#include <boost/log/sources/severity_channel_logger.hpp>
#include <cstdint>
#include <gtest/gtest.h>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

namespace {

using tests::Logger;
using tests::Output;
using tests::outputOf;
using tests::severity;

std::ptrdiff_t linesIn(const std::string& text) {
    return std::count(text.begin(), text.end(), '\n');
}

TEST(LogDestination, ShowsNothingBeforeAFilterIsSet) {
    const Output output = outputOf([] {
        Logger("a").log(severity::fatal, "unheard");
        tests::setDestination("stdout");
        Logger("a").log(severity::fatal, "unheard");
    });
    EXPECT_EQ(output.standard, "");
    EXPECT_EQ(output.error, "");
}

TEST(LogDestination, ShowsNothingOnceTheFilterIsEmptyAgain) {
    const Output output = outputOf([] {
        tests::setDestination("stdout");
        tests::setFilter("a=all");
        tests::setFilter("");
        Logger("a").log(severity::fatal, "unheard");
    });
    EXPECT_EQ(output.standard, "");
    EXPECT_EQ(output.error, "");
}

TEST(LogDestination, ShowsARecordInOneLineWithTimeChannelSeverityAndMessage) {
    const Output output = outputOf([] {
        tests::setDestination("stdout");
        tests::setFilter("some::channel=all");
        Logger("some::channel").log(severity::warning, "some text");
    });
    EXPECT_EQ(linesIn(output.standard), 1) << output.standard;
    EXPECT_TRUE(output.standard.ends_with("some text\n")) << output.standard;
    const auto channel = output.standard.find("some::channel");
    const auto level = output.standard.find("warning");
    ASSERT_NE(channel, std::string::npos) << output.standard;
    EXPECT_LT(output.standard.find_first_of("0123456789"), channel) << output.standard;
    EXPECT_LT(channel, level) << output.standard;
    EXPECT_LT(level, output.standard.find("some text")) << output.standard;
    EXPECT_EQ(output.error, "");
}

TEST(LogDestination, CanBeTheErrorStream) {
    const Output output = outputOf([] {
        tests::setDestination("stderr");
        tests::setFilter("a=all");
        Logger("a").log(severity::error, "some text");
    });
    EXPECT_EQ(output.standard, "");
    EXPECT_EQ(linesIn(output.error), 1) << output.error;
    EXPECT_NE(output.error.find("some text"), std::string::npos) << output.error;
}

TEST(LogDestination, ShowsARecordOnceHoweverOftenItIsSet) {
    const Output output = outputOf([] {
        tests::setDestination("stdout");
        tests::setDestination("stdout");
        tests::setFilter("a=all");
        Logger("a").log(severity::error, "some text");
    });
    EXPECT_EQ(linesIn(output.standard), 1) << output.standard;
}

TEST(LogDestination, ReplacesTheOneSetBefore) {
    const Output output = outputOf([] {
        tests::setFilter("a=all");
        tests::setDestination("stdout");
        Logger("a").log(severity::error, "first");
        tests::setDestination("stderr");
        Logger("a").log(severity::error, "second");
    });
    EXPECT_NE(output.standard.find("first"), std::string::npos) << output.standard;
    EXPECT_EQ(output.standard.find("second"), std::string::npos) << output.standard;
    EXPECT_EQ(output.error.find("first"), std::string::npos) << output.error;
    EXPECT_NE(output.error.find("second"), std::string::npos) << output.error;
}

TEST(LogDestination, StaysWhenAnUnknownOneIsAskedFor) {
    const Output output = outputOf([] {
        tests::setFilter("a=all");
        tests::setDestination("stdout");
        for (const std::string name : {"", "stdin", "STDOUT", "/dev/null", "stdout "}) {
            EXPECT_THROW(tests::setDestination(name), std::invalid_argument) << name;
        }
        Logger("a").log(severity::error, "some text");
    });
    EXPECT_EQ(linesIn(output.standard), 1) << output.standard;
}

/// The record's message.
std::string messageOf(const boost::log::record_view& record) {
    return boost::log::extract_or_default<std::string>("Message", record, std::string());
}

TEST(LogDestination, LeavesTheApplicationsSinksTheirRecordsAndGivesThemItsOwn) {
    const Output output = outputOf([] {
        std::vector<std::string> received;
        const tests::ApplicationSink sink([&received](const boost::log::record_view& record) {
            received.push_back(messageOf(record));
        });
        boost::log::sources::logger application;
        tests::setDestination("stdout");
        tests::setFilter("a=all");
        BOOST_LOG(application) << "the application's";
        Logger("a").log(severity::error, "the library's");
        tests::setFilter("");
        Logger("a").log(severity::error, "unheard");
        BOOST_LOG(application) << "the application's again";
        EXPECT_EQ(received, (std::vector<std::string>{"the application's", "the library's",
                                                      "the application's again"}));
    });
    EXPECT_EQ(linesIn(output.standard), 1) << output.standard;
    EXPECT_NE(output.standard.find("the library's"), std::string::npos) << output.standard;
}

TEST(LogDestination, ShowsNoRecordOfTheApplicationNotEvenOneThatLooksLikeItsOwn) {
    const Output output = outputOf([] {
        tests::setDestination("stdout");
        tests::setFilter("a=all");
        boost::log::sources::severity_channel_logger<std::uint32_t, std::string> application(
            boost::log::keywords::channel = "a");
        BOOST_LOG_SEV(application, 512U) << "the application's";
    });
    EXPECT_EQ(output.standard, "");
    EXPECT_EQ(output.error, "");
}

TEST(LogDestination, MayChangeWhileThreadsLog) {
    const Output output = outputOf([] {
        tests::setFilter("a=all");
        tests::setDestination("stdout");
        std::vector<std::jthread> threads;
        for (int i = 0; i < 2; ++i) {
            threads.emplace_back([] {
                Logger logger("a");
                for (int j = 0; j < 300; ++j) {
                    logger.log(severity::error, "text");
                }
            });
            threads.emplace_back([] {
                for (const auto* name : {"stderr", "stdout", "stderr", "stdout"}) {
                    tests::setDestination(name);
                }
            });
        }
        threads.clear();
        Logger("a").log(severity::error, "the last");
    });
    EXPECT_TRUE(output.standard.ends_with("the last\n")) << output.standard;
    EXPECT_EQ(output.error.find("the last"), std::string::npos) << output.error;
}

} // namespace
