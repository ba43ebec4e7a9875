#include "endpointregistry/Endpoint.h"

#include "endpointregistry/NamedStringArray.h"
#include "tests/endpointregistry/LockedFileTools.h"
#include "tests/endpointregistry/SharingTools.h"
#include "tests/support/ForkedProcess.h"
#include "tests/support/TestAccounts.h"
#include "tests/support/TracedProcess.h"

#include <csignal>
#include <cstdlib>
#include <functional>
#include <gtest/gtest.h>
#include <string>
#include <unistd.h>
#include <vector>

using namespace agent::spf::endpointregistry;
using tests::as;
using tests::DataPair;
using tests::DataPairs;
using tests::Names;
using tests::Rows;

namespace {

namespace accounts = tests::accounts;
using accounts::anna;
using accounts::ben;
using accounts::friends;

const DataPair annas("data of", "anna");
const DataPair bens("data of", "ben");
const std::string tag = "tag";
const std::string key = "key";

/// In every sweep far fewer steps would mean that the child did not do what it is killed for.
constexpr int fewestSteps = 100;

/// In a process that is killed at each of its steps: these begin here.
void beginSteps() {
    ::raise(SIGSTOP);
}

/// Makes the process anna's, and clears away what those before it have left of her private entries:
/// they are nobody else's to clear away, and with all of them around each step would take longer.
void becomeAnna() {
    accounts::become(anna);
    Endpoint::list();
}

/// anna's beginning with the group. She ends without withdrawing.
void share() {
    becomeAnna();
    Endpoint endpoint(annas, tag, key);
    beginSteps();
    endpoint.addTrustees({friends});
    ::_exit(EXIT_SUCCESS);
}

/// Her end with the group.
void withdraw() {
    becomeAnna();
    Endpoint endpoint(annas, tag, key);
    endpoint.addTrustees({friends});
    beginSteps();
    endpoint.removeTrustees({friends});
}

/// Lets a process die at its `step`-th step; false when it ended before.
bool killAt(int step, const std::function<void()>& body) {
    tests::TracedProcess process(body);
    process.runToOwnStop();
    return process.run(step);
}

/// What lies in the group's folder but for files that have not got their names yet.
Names visibleEntries() {
    Names names = tests::sharedEntries(friends);
    std::erase_if(names, [](const std::string& name) { return name.front() == '.'; });
    return names;
}

/// As ben: nothing of hers is found, nothing is left after he looked, and he can share.
void expectNoHarm() {
    EXPECT_EQ(Endpoint::listFromAllTrustees(), DataPairs());
    EXPECT_EQ(visibleEntries(), Names());
    EXPECT_EQ(tests::rowsOf(friends), Rows());
    Endpoint endpoint(bens, tag, key);
    endpoint.addTrustees({friends});
    EXPECT_EQ(Endpoint::findFromAllTrustees(tag, key), bens);
    EXPECT_EQ(Endpoint::list({friends}), DataPairs{bens});
    endpoint.removeTrustees({friends});
    EXPECT_EQ(Endpoint::list({friends}), DataPairs());
    EXPECT_EQ(visibleEntries(), Names());
    EXPECT_EQ(tests::rowsOf(friends), Rows());
}

/// As anna: she can share again, and what she had begun to make is cleared away.
void expectNoTraces() {
    EXPECT_EQ(Endpoint::list(), DataPairs());
    {
        Endpoint endpoint(annas, tag, key);
        endpoint.addTrustees({friends});
        EXPECT_EQ(Endpoint::list({friends}), DataPairs{annas});
    }
    EXPECT_EQ(tests::sharedEntries(friends), Names());
    EXPECT_EQ(tests::entryFiles(), Names());
    // The base and the container; what was replaced of ben's stays until he comes by.
    EXPECT_LE(tests::kernelSegments().size(), 3U);
}

class EndpointSharingCrash : public tests::SharingTest {
protected:
    /// Has a process killed at each of its steps in turn, each time on a machine prepared anew, and
    /// looks what the others can do then.
    static void sweep(const std::function<void()>& prepare, const std::function<void()>& body) {
        int step = 0;
        for (bool wasKilled = true; wasKilled && !HasFailure(); ++step) {
            const testing::ScopedTrace trace(__FILE__, __LINE__, "step " + std::to_string(step));
            prepare();
            wasKilled = killAt(step, body);
            as(ben, expectNoHarm);
            as(anna, expectNoTraces);
        }
        EXPECT_GT(step, fewestSteps);
    }

    /// The same on a machine where others go on sharing; `look` is what ben does after each.
    static void sweepAmongOthers(const std::function<void()>& look) {
        for (const auto& body : {share, withdraw}) {
            int step = 0;
            for (bool wasKilled = true; wasKilled && !HasFailure(); ++step) {
                const testing::ScopedTrace trace(__FILE__, __LINE__,
                                                 "step " + std::to_string(step));
                wasKilled = killAt(step, body);
                as(ben, look);
            }
            EXPECT_GT(step, fewestSteps);
        }
    }
};

/// ben's process with lasting entries, which live until it is told to end.
class Others {
public:
    explicit Others(int count)
        : process([count](tests::Channel& test) {
            accounts::become(ben);
            std::vector<Endpoint> endpoints;
            for (const DataPair& data : dataOf(count)) {
                endpoints.emplace_back(data, tag, data.second);
                endpoints.back().addTrustees({friends});
            }
            test.send("shared");
            // A sweep takes longer than a process usually waits for the other.
            ::pause();
        })
        , expected(dataOf(count)) {
        process.channel().receive();
    }

    /// As a member: all of them are there, and nothing else.
    void expectAlone() const {
        EXPECT_EQ(Endpoint::listFromAllTrustees(), expected);
        EXPECT_EQ(visibleEntries().size(), expected.size());
        EXPECT_EQ(tests::rowsOf(friends).size(), expected.size());
    }

private:
    static DataPairs dataOf(int count) {
        DataPairs all;
        for (int number = 0; number < count; ++number) {
            all.emplace_back("lasting", std::to_string(number));
        }
        return all;
    }

    tests::ForkedProcess process;
    DataPairs expected;
};

} // namespace

TEST_F(EndpointSharingCrash, OfTheVeryFirstToShareLocksNobodyOut) {
    sweep(startAfresh, share);
}

TEST_F(EndpointSharingCrash, OfOneWhoWithdrawsLastLocksNobodyOut) {
    sweep(startAfresh, withdraw);
}

TEST_F(EndpointSharingCrash, OfOneWhoSharesWhatOthersUseLeavesTheRestUnharmed) {
    const Others others(1);
    sweepAmongOthers([&others] { others.expectAlone(); });
    as(anna, [&others] { others.expectAlone(); });
}

TEST_F(EndpointSharingCrash, OfOneWhoMakesTheTableGrowOrShrinkLosesNoRow) {
    // With ten rows the table is full, and one more has it replaced by a larger one.
    const Others others(10);
    sweepAmongOthers([&others] {
        others.expectAlone();
        // It may have died before the table was made smaller again.
        EXPECT_LE(getNamedStringArrayDimensions(tests::tableName, 0, friends).first, 20U);
    });
    as(anna, [&others] { others.expectAlone(); });
}

TEST_F(EndpointSharingCrash, OfAReaderThatClearsUpAfterTheDeadLeavesTheRestToTheNext) {
    sweep(
        [] {
            startAfresh();
            tests::Sharer(anna, annas, tag, key, {friends}).kill();
        },
        [] {
            accounts::become(anna);
            beginSteps();
            if (!Endpoint::list({friends}).empty()) {
                std::abort();
            }
        });
}
