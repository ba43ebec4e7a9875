#include "endpointregistry/Endpoint.h"

#include "endpointregistry/NamedStringArray.h"
#include "tests/endpointregistry/LockedFileTools.h"
#include "tests/endpointregistry/SharingTools.h"
#include "tests/support/ForkedProcess.h"
#include "tests/support/TestAccounts.h"
#include "tests/support/TracedProcess.h"

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

/// anna's whole life with the group: she shares and withdraws.
void shareAndWithdraw() {
    accounts::become(anna);
    Endpoint endpoint(annas, tag, key);
    endpoint.addTrustees({friends});
    endpoint.removeTrustees({friends});
}

void shareAndDie() {
    accounts::become(anna);
    Endpoint endpoint(annas, tag, key);
    endpoint.addTrustees({friends});
    ::_exit(EXIT_SUCCESS);
}

/// Lets a process die at its `step`-th step; false when it ended before.
bool killAt(int step, const std::function<void()>& body) {
    tests::TracedProcess process(body);
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
    {
        Endpoint endpoint(annas, tag, key);
        endpoint.addTrustees({friends});
        EXPECT_EQ(Endpoint::list({friends}), DataPairs{annas});
    }
    EXPECT_EQ(tests::sharedEntries(friends), Names());
    EXPECT_EQ(tests::entryFiles(), Names());
    for (const std::string& folder : {std::string("/home/Shared"), tests::sharedTop,
                                      tests::sharedTop + "/" + tests::entryParent,
                                      tests::sharedTop + "/" + tests::tableParent}) {
        for (const std::string& name : tests::namesIn(folder)) {
            EXPECT_NE(name.front(), '.') << folder << "/" << name;
        }
    }
    // The base and the container; what was replaced by others stays until its owner comes by.
    EXPECT_LE(tests::kernelSegments().size(), 4U);
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

    static void startAfresh() {
        clearMachine();
        tests::provideSharedFolder();
    }
};

} // namespace

TEST_F(EndpointSharingCrash, OfTheVeryFirstToShareLocksNobodyOut) {
    sweep(startAfresh, shareAndWithdraw);
}

TEST_F(EndpointSharingCrash, OfOneWhoSharesWhatOthersUseLeavesTheRestUnharmed) {
    startAfresh();
    tests::Sharer other(ben, {"lasting", "data"}, tag, "lasting", {friends});
    int step = 0;
    for (bool wasKilled = true; wasKilled && !HasFailure(); ++step) {
        const testing::ScopedTrace trace(__FILE__, __LINE__, "step " + std::to_string(step));
        wasKilled = killAt(step, shareAndWithdraw);
        as(ben, [&other] {
            EXPECT_EQ(Endpoint::listFromAllTrustees(), (DataPairs{{"lasting", "data"}}));
            EXPECT_EQ(visibleEntries(), Names{other.name()});
            EXPECT_EQ(tests::rowsOf(friends), (Rows{{other.name(), "lasting", "data"}}));
        });
    }
    EXPECT_GT(step, fewestSteps);
    as(anna, [] { EXPECT_EQ(Endpoint::list({friends}), (DataPairs{{"lasting", "data"}})); });
    other.end();
    as(ben, expectNoHarm);
    as(anna, expectNoTraces);
}

TEST_F(EndpointSharingCrash, OfOneWhoMakesTheTableGrowLosesNoRow) {
    // With ten rows the table is full, and one more has it replaced by a larger one.
    constexpr int rowCount = 10;
    startAfresh();
    tests::ForkedProcess publisher([](tests::Channel& test) {
        accounts::become(ben);
        std::vector<Endpoint> endpoints;
        for (int row = 0; row < rowCount; ++row) {
            endpoints.emplace_back(DataPair("lasting", std::to_string(row)), tag,
                                   std::to_string(row));
            endpoints.back().addTrustees({friends});
        }
        test.send("shared");
        test.receive();
    });
    publisher.channel().receive();
    DataPairs expected;
    for (int row = 0; row < rowCount; ++row) {
        expected.emplace_back("lasting", std::to_string(row));
    }
    int step = 0;
    for (bool wasKilled = true; wasKilled && !HasFailure(); ++step) {
        const testing::ScopedTrace trace(__FILE__, __LINE__, "step " + std::to_string(step));
        wasKilled = killAt(step, shareAndWithdraw);
        as(ben, [&expected] {
            EXPECT_EQ(Endpoint::list({friends}), expected);
            EXPECT_EQ(tests::rowsOf(friends).size(), expected.size());
            EXPECT_EQ(getNamedStringArrayDimensions(tests::tableName, 0, friends).first, 10U);
        });
    }
    EXPECT_GT(step, fewestSteps);
    publisher.channel().send("end");
    EXPECT_EQ(publisher.waitForExit(), 0);
    as(ben, expectNoHarm);
    as(anna, expectNoTraces);
}

TEST_F(EndpointSharingCrash, OfAReaderThatClearsUpAfterTheDeadLeavesTheRestToTheNext) {
    sweep(
        [] {
            startAfresh();
            EXPECT_FALSE(killAt(1'000'000, shareAndDie));
        },
        [] {
            accounts::become(anna);
            if (!Endpoint::list({friends}).empty()) {
                std::abort();
            }
        });
}
