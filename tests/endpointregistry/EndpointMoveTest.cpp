#include "endpointregistry/Endpoint.h"

#include "tests/endpointregistry/EndpointTools.h"
#include "tests/endpointregistry/LockedFileTools.h"
#include "tests/platform/LogTools.h"
#include "tests/support/LogCapture.h"

#include <boost/log/attributes/value_extraction.hpp>
#include <gtest/gtest.h>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

using namespace agent::spf::endpointregistry;
using tests::DataPair;
using tests::DataPairs;
using tests::LogCapture;
using tests::LogRecord;
using tests::moveAndDestructionChannel;

namespace {

using Records = std::vector<LogRecord>;

LogRecord trace(const std::string& message) {
    return {moveAndDestructionChannel, 4, message};
}

void failOnMoves(const boost::log::record_view& record) {
    const std::string message =
        boost::log::extract_or_default<std::string>("Message", record, std::string());
    if (message.find("Endpoint: Moving ") == 0) {
        throw std::domain_error("the sink is clogged");
    }
}

void failOnEverything(const boost::log::record_view& record) {
    failOnMoves(record);
    throw std::range_error("the sink is broken");
}

class EndpointLife : public tests::RegistryTest {};

} // namespace

TEST_F(EndpointLife, BeginsEmptyAndUnnoticed) {
    const LogCapture log;
    {
        Endpoint endpoint;
        EXPECT_FALSE(endpoint);
        endpoint.reset();
        EXPECT_FALSE(endpoint);
    }
    EXPECT_EQ(log.records(), Records());
}

TEST_F(EndpointLife, EndsWithALineOnDestruction) {
    const LogCapture log;
    {
        const Endpoint endpoint({"a", ""}, "the tag", "key");
        EXPECT_EQ(log.records(), Records());
    }
    EXPECT_EQ(log.records(), Records{trace("Endpoint: Destructing the tag")});
}

TEST_F(EndpointLife, EndsWithoutALineOnReset) {
    const LogCapture log;
    {
        Endpoint endpoint({"a", ""}, "tag", "key");
        endpoint.reset();
        endpoint.reset();
        EXPECT_FALSE(endpoint);
    }
    EXPECT_EQ(log.records(), Records());
}

TEST_F(EndpointLife, IsTracedOnlyWhereThatIsEnabled) {
    const LogCapture log(moveAndDestructionChannel + "=debug");
    Endpoint endpoint({"a", ""}, "tag", "key");
    endpoint = Endpoint({"b", ""}, "tag", "other key");
    endpoint = Endpoint();
    EXPECT_EQ(log.records(), Records());
}

TEST_F(EndpointLife, GoesOnInTheObjectItIsMovedTo) {
    const LogCapture log;
    Endpoint source({"a", ""}, "tag", "key");
    const std::vector<std::string> before = tests::entryFiles();
    const Endpoint target(std::move(source));
    EXPECT_TRUE(target);
    EXPECT_FALSE(source); // NOLINT(bugprone-use-after-move): it is said to be empty now
    EXPECT_EQ(tests::entryFiles(), before);
    EXPECT_TRUE(tests::isHeld(tests::entryPath(before.front())));
    EXPECT_EQ(Endpoint::find("tag", "key"), DataPair("a", ""));
    EXPECT_EQ(log.records(), Records());
}

TEST_F(EndpointLife, GoesOnInTheEmptyObjectItIsAssignedTo) {
    const LogCapture log;
    Endpoint source({"a", ""}, "tag", "key");
    Endpoint target;
    target = std::move(source);
    EXPECT_TRUE(target);
    EXPECT_FALSE(source); // NOLINT(bugprone-use-after-move): it is said to be empty now
    EXPECT_EQ(Endpoint::find("tag", "key"), DataPair("a", ""));
    EXPECT_EQ(log.records(), Records());
}

TEST_F(EndpointLife, ReplacesTheOneOfTheObjectItIsAssignedTo) {
    const LogCapture log;
    {
        Endpoint source({"a", ""}, "source tag", "key");
        Endpoint target({"b", ""}, "target tag", "key");
        target = std::move(source);
        EXPECT_TRUE(target);
        EXPECT_FALSE(source); // NOLINT(bugprone-use-after-move): it is said to be empty now
        EXPECT_EQ(Endpoint::list(), (DataPairs{{"a", ""}}));
        EXPECT_EQ(log.records(), Records{trace("Endpoint: Moving source tag")});
    }
    EXPECT_EQ(log.records(), (Records{trace("Endpoint: Moving source tag"),
                                      trace("Endpoint: Destructing source tag")}));
}

TEST_F(EndpointLife, EndsWhenAnEmptyObjectIsAssigned) {
    const LogCapture log;
    {
        Endpoint target({"a", ""}, "tag", "key");
        Endpoint source;
        target = std::move(source);
        EXPECT_FALSE(target);
        EXPECT_FALSE(source); // NOLINT(bugprone-use-after-move): it is said to be empty now
        EXPECT_EQ(Endpoint::list(), DataPairs());
    }
    EXPECT_EQ(log.records(), Records{trace("Endpoint: Moving ")});
}

TEST_F(EndpointLife, OutlivesAnAssignmentToItself) {
    Endpoint endpoint({"a", ""}, "tag", "key");
    Endpoint& same = endpoint;
    endpoint = std::move(same);
    EXPECT_TRUE(endpoint);
    EXPECT_EQ(Endpoint::find("tag", "key"), DataPair("a", ""));
    Endpoint empty;
    Endpoint& sameEmpty = empty;
    empty = std::move(sameEmpty);
    EXPECT_FALSE(empty);
}

TEST_F(EndpointLife, LetsAnEmptiedObjectPublishAgain) {
    Endpoint endpoint({"a", ""}, "tag", "key");
    const Endpoint taken(std::move(endpoint));
    endpoint = Endpoint({"b", ""}, "tag", "other key");
    EXPECT_EQ(Endpoint::list(), (DataPairs{{"a", ""}, {"b", ""}}));
}

TEST_F(EndpointLife, StaysAsItWasWhenTheApplicationsLogFailsOnAMove) {
    Endpoint source({"a", ""}, "tag", "source key");
    Endpoint target({"b", ""}, "tag", "target key");
    const LogCapture log;
    {
        const tests::ApplicationSink sink(failOnMoves);
        try {
            target = std::move(source);
            ADD_FAILURE() << "the sink's exception was lost";
        } catch (const std::domain_error& error) {
            EXPECT_STREQ(error.what(), "the sink is clogged");
        }
    }
    EXPECT_TRUE(source); // NOLINT(bugprone-use-after-move): it is said to be unchanged
    EXPECT_TRUE(target);
    EXPECT_EQ(Endpoint::find("tag", "source key"), DataPair("a", ""));
    EXPECT_EQ(Endpoint::find("tag", "target key"), DataPair("b", ""));

    ASSERT_FALSE(log.records().empty());
    const LogRecord last = log.records().back();
    EXPECT_EQ(last.channel, moveAndDestructionChannel);
    EXPECT_EQ(last.severity, 16U);
    EXPECT_EQ(last.message.find("Exception caught: "), 0U) << last.message;
    EXPECT_NE(last.message.find("std::domain_error"), std::string::npos) << last.message;
    EXPECT_NE(last.message.find("the sink is clogged"), std::string::npos) << last.message;
}

TEST_F(EndpointLife, StaysAsItWasWhenTheApplicationsLogFailsOnEverything) {
    Endpoint source({"a", ""}, "tag", "source key");
    Endpoint target({"b", ""}, "tag", "target key");
    {
        const LogCapture log;
        const tests::ApplicationSink sink(failOnEverything);
        EXPECT_THROW(target = std::move(source), std::domain_error);
    }
    EXPECT_TRUE(source); // NOLINT(bugprone-use-after-move): it is said to be unchanged
    EXPECT_TRUE(target);
    EXPECT_EQ(Endpoint::list().size(), 2U);
}

TEST_F(EndpointLife, GoesOnWhenTheFailingLogIsNotTold) {
    Endpoint source({"a", ""}, "tag", "source key");
    Endpoint target({"b", ""}, "tag", "target key");
    const tests::ApplicationSink sink(failOnMoves);
    EXPECT_NO_THROW(target = std::move(source));
    EXPECT_EQ(Endpoint::list(), (DataPairs{{"a", ""}}));
}
