#include "endpointregistry/Endpoint.h"

#include "tests/endpointregistry/EndpointTools.h"
#include "tests/endpointregistry/FewDescriptors.h"
#include "tests/endpointregistry/SharingTools.h"
#include "tests/support/ForkedProcess.h"
#include "tests/support/Sanitizers.h"
#include "tests/support/TestAccounts.h"

#include <exception>
#include <functional>
#include <gtest/gtest.h>
#include <stdexcept>
#include <string>
#include <typeinfo>

using namespace agent::spf::endpointregistry;
using tests::as;
using tests::DataPair;
using tests::DataPairs;
using tests::Names;
using tests::Rows;
using tests::Sharer;

namespace {

namespace accounts = tests::accounts;
using accounts::anna;
using accounts::ben;
using accounts::friends;

const DataPair data("data of", "anna");
const DataPair bensData("data of", "ben");
const std::string tag = "tag";
const std::string key = "key";

/// What happens in a process that has hardly a descriptor left, to what is shared with a group.
class EndpointSharingWithoutDescriptors : public tests::SharingTest {
protected:
    void SetUp() override {
        if (!tests::canDoWithoutDescriptors) {
            GTEST_SKIP() << tests::whyDescriptorsAreNeeded;
        }
        SharingTest::SetUp();
    }

    /// Has ben try it with ever more descriptors, until it succeeds: before, it is refused as the
    /// system refuses things, and not once does it find nothing where there is something.
    static void expectRefusedUntilItSucceeds(
        const std::function<void()>& call, const std::function<void()>& afterwards = [] {}) {
        constexpr std::size_t enough = 30;
        for (std::size_t left = 0; left < enough; ++left) {
            tests::ForkedProcess child([&](tests::Channel& test) {
                accounts::become(ben);
                std::string outcome = "done";
                {
                    const auto hoard = tests::leaveDescriptors(left);
                    try {
                        call();
                    } catch (const std::exception& refusal) {
                        EXPECT_EQ(typeid(refusal), typeid(std::runtime_error)) << refusal.what();
                        outcome = refusal.what();
                    }
                }
                afterwards();
                test.send(outcome);
            });
            const std::string outcome = child.channel().receive();
            EXPECT_EQ(child.waitForExit(), 0) << "with " << left << " descriptors: " << outcome;
            if (outcome == "done") {
                EXPECT_GT(left, 0U);
                return;
            }
        }
        ADD_FAILURE() << enough << " descriptors are not enough";
    }
};

} // namespace

TEST_F(EndpointSharingWithoutDescriptors, IsNoLookUpThatMissesWhatThereIs) {
    Sharer publisher(anna, data, tag, key, {friends});
    expectRefusedUntilItSucceeds([] { EXPECT_EQ(Endpoint::list({friends}), DataPairs{data}); });
    expectRefusedUntilItSucceeds(
        [] { EXPECT_EQ(Endpoint::filter(tag, {friends}), DataPairs{data}); });
    expectRefusedUntilItSucceeds([] { EXPECT_EQ(Endpoint::findFromAllTrustees(tag, key), data); });
    EXPECT_EQ(tests::sharedEntries(friends), Names{publisher.name()});
    as(ben, [] { EXPECT_EQ(Endpoint::list({friends}), DataPairs{data}); });
    publisher.end();
}

TEST_F(EndpointSharingWithoutDescriptors, IsNoSharingThatLeavesTraces) {
    const Sharer publisher(anna, data, tag, key, {friends});
    const std::string other = "other tag";
    expectRefusedUntilItSucceeds(
        [&] {
            Endpoint endpoint(bensData, other, key);
            endpoint.addTrustees({friends});
        },
        [&] {
            EXPECT_EQ(tests::entryFiles(), Names());
            EXPECT_EQ(tests::sharedEntries(friends), Names{publisher.name()});
            EXPECT_EQ(tests::rowsOf(friends).size(), 1U);
            EXPECT_EQ(Endpoint::list({friends}), DataPairs{data});
        });
}

TEST_F(EndpointSharingWithoutDescriptors, IsNoFirstSharingThatLeavesTraces) {
    expectRefusedUntilItSucceeds(
        [] {
            Endpoint endpoint(bensData, tag, key);
            endpoint.addTrustees({friends});
        },
        [] {
            EXPECT_EQ(tests::entryFiles(), Names());
            EXPECT_EQ(tests::sharedEntries(friends), Names());
            EXPECT_EQ(tests::rowsOf(friends), Rows());
        });
}

TEST_F(EndpointSharingWithoutDescriptors, IsNoLookUpThatTakesTheLivingForDead) {
    const Sharer publisher(anna, data, tag, key, {friends});
    expectRefusedUntilItSucceeds(
        [] { EXPECT_EQ(Endpoint::listFromAllTrustees(), DataPairs{data}); },
        [&] {
            EXPECT_EQ(tests::sharedEntries(friends), Names{publisher.name()});
            EXPECT_EQ(tests::rowsOf(friends).size(), 1U);
        });
}
