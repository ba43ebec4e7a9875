#include "endpointregistry/Endpoint.h"

#include "tests/endpointregistry/EndpointTools.h"
#include "tests/support/ForkedProcess.h"
#include "tests/support/TestAccounts.h"

#include <gtest/gtest.h>
#include <optional>
#include <string>
#include <unistd.h>
#include <vector>

using namespace agent::spf::endpointregistry;
using tests::Channel;
using tests::DataPair;
using tests::DataPairs;
using tests::ForkedProcess;

namespace {

namespace accounts = tests::accounts;

const std::string tag = "tag";
const std::string key = "key";

class EndpointUsers : public tests::RegistryTest {
protected:
    void SetUp() override {
        RegistryTest::SetUp();
        if (!accounts::available()) {
            GTEST_SKIP() << accounts::whyNot;
        }
    }
};

/// A user's process that publishes, and looks around on request.
void publishAs(const std::string& user, Channel& test) {
    accounts::become(user);
    const DataPair data("data of", user);
    const Endpoint endpoint(data, tag, key);
    test.send("published");
    test.receive();
    EXPECT_EQ(Endpoint::find(tag, key), data);
    EXPECT_EQ(Endpoint::list(), DataPairs{data});
    test.send("looked");
    test.receive();
}

} // namespace

TEST_F(EndpointUsers, DoNotMeetUnderOneTagAndKey) {
    ForkedProcess anna([](Channel& test) { publishAs(accounts::anna, test); });
    ForkedProcess ben([](Channel& test) { publishAs(accounts::ben, test); });
    const Endpoint own({"data of", "root"}, tag, key);
    for (ForkedProcess* process : {&anna, &ben}) {
        EXPECT_EQ(process->channel().receive(), "published");
    }
    for (ForkedProcess* process : {&anna, &ben}) {
        process->channel().send("look");
        EXPECT_EQ(process->channel().receive(), "looked");
    }
    EXPECT_EQ(Endpoint::find(tag, key), DataPair("data of", "root"));
    for (ForkedProcess* process : {&anna, &ben}) {
        process->channel().send("end");
        EXPECT_EQ(process->waitForExit(), 0);
    }
}

TEST_F(EndpointUsers, ClearAwayOnlyTheirOwnDead) {
    ForkedProcess anna([](Channel& test) { publishAs(accounts::anna, test); });
    anna.channel().receive();
    anna.kill();
    EXPECT_EQ(Endpoint::list(), DataPairs());
    EXPECT_EQ(tests::runInChild([] {
                  accounts::become(accounts::ben);
                  EXPECT_EQ(Endpoint::list(), DataPairs());
              }),
              0);
    EXPECT_EQ(tests::segmentFiles().size(), 1U);
    EXPECT_EQ(tests::runInChild([] {
                  accounts::become(accounts::anna);
                  EXPECT_EQ(tests::entryFiles().size(), 1U);
                  EXPECT_EQ(Endpoint::list(), DataPairs());
                  EXPECT_EQ(tests::entryFiles().size(), 0U);
              }),
              0);
}

TEST_F(EndpointUsers, FindTheirNewRegistryWhenTheyChange) {
    EXPECT_EQ(tests::runInChild([] {
                  EXPECT_EQ(Endpoint::list(), DataPairs());
                  accounts::become(accounts::anna);
                  const DataPair data("data of", "anna");
                  Endpoint endpoint(data, tag, key);
                  EXPECT_EQ(Endpoint::find(tag, key), data);
                  EXPECT_EQ(tests::entryFiles().size(), 1U);
                  endpoint.reset();
                  EXPECT_EQ(tests::entryFiles().size(), 0U);
              }),
              0);
}

TEST_F(EndpointUsers, LeaveTheirOldRegistryWhenTheyChange) {
    EXPECT_EQ(tests::runInChild([] {
                  const Endpoint old({"data of", "root"}, tag, key);
                  accounts::become(accounts::anna);
                  EXPECT_EQ(Endpoint::find(tag, key), std::nullopt);
                  const DataPair data("data of", "anna");
                  const Endpoint next(data, tag, key);
                  EXPECT_EQ(Endpoint::find(tag, key), data);
                  EXPECT_EQ(Endpoint::list(), DataPairs{data});
              }),
              0);
    // What anna could not remove any more is found dead.
    EXPECT_EQ(Endpoint::find(tag, key), std::nullopt);
}

TEST_F(EndpointUsers, WithdrawWhatTheyPublishedBeforeTheyWentBack) {
    EXPECT_EQ(tests::runInChild([] {
                  const uid_t anna = accounts::userId(accounts::anna);
                  ASSERT_EQ(::seteuid(anna), 0);
                  Endpoint endpoint({"data of", "anna"}, tag, key);
                  ASSERT_EQ(tests::entryFiles().size(), 1U);
                  ASSERT_EQ(::seteuid(0), 0);
                  EXPECT_EQ(Endpoint::find(tag, key), std::nullopt);
                  endpoint.reset();
                  ASSERT_EQ(::seteuid(anna), 0);
                  EXPECT_EQ(tests::entryFiles(), std::vector<std::string>());
                  EXPECT_EQ(tests::segmentFiles(), std::vector<std::string>());
              }),
              0);
}
