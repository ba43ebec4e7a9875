#include "endpointregistry/Endpoint.h"

#include "tests/endpointregistry/EndpointHintTools.h"
#include "tests/endpointregistry/EndpointTools.h"
#include "tests/support/TracedProcess.h"

#include <filesystem>
#include <functional>
#include <gtest/gtest.h>
#include <string>
#include <unistd.h>
#include <vector>

using namespace agent::spf::endpointregistry;
using tests::DataPair;
using tests::DataPairs;
using tests::TracedProcess;

namespace {

namespace fs = std::filesystem;

const DataPair data("ab", "c");
const std::string tag = "tag";
const std::string key = "key";

void publishAndWithdraw() {
    const Endpoint endpoint(data, tag, key);
}

void lookUp() {
    Endpoint::find(tag, key);
}

class HintAtAnyMoment : public tests::RegistryTest {
protected:
    /// Has `body` stopped at each of its steps, where `judge` judges, and killed there; then all
    /// that is left must be gone with `look`.
    static void killAtEveryStep(const std::function<void()>& prepare,
                                const std::function<void()>& body,
                                const std::function<void()>& judge,
                                const std::function<void()>& look, int fewestSteps) {
        int step = 0;
        for (bool isOnTheWay = true; isOnTheWay; ++step) {
            SCOPED_TRACE("killed at step " + std::to_string(step));
            prepare();
            {
                TracedProcess process(body);
                isOnTheWay = process.run(step);
                judge();
            }
            look();
            ASSERT_EQ(tests::hintFiles(), std::vector<std::string>());
            // Of files that had not got their names yet, the next publisher clears the rest away.
            publishAndWithdraw();
            ASSERT_EQ(tests::entryFiles(), std::vector<std::string>());
            ASSERT_EQ(tests::segmentFiles(), std::vector<std::string>());
        }
        EXPECT_GT(step, fewestSteps);
    }

    /// A lookup by way of the hint finds what a listing does, and again the next time.
    static void expectAgreement() {
        const DataPairs listed = Endpoint::filter(tag);
        for (int i = 0; i < 2; ++i) {
            const auto found = Endpoint::find(tag, key);
            EXPECT_EQ(found ? DataPairs{*found} : DataPairs(), listed);
        }
    }

    static void removeHintFolder() { fs::remove_all(tests::hintFolder()); }
    static void publishAndDie() {
        ASSERT_NO_FATAL_FAILURE(tests::publishAndDie({"dead", ""}, tag, key));
    }
    static void list() { EXPECT_EQ(Endpoint::list(), DataPairs()); }
    static void find() { EXPECT_EQ(Endpoint::find(tag, key), std::nullopt); }
};

} // namespace

TEST_F(HintAtAnyMoment, OfAPublicationAndAWithdrawalAgreesWithTheFolder) {
    killAtEveryStep([] {}, publishAndWithdraw, expectAgreement, list, 50);
    killAtEveryStep([] {}, publishAndWithdraw, expectAgreement, find, 50);
}

TEST_F(HintAtAnyMoment, OfTheFirstPublicationAgreesWithTheFolder) {
    killAtEveryStep(removeHintFolder, publishAndWithdraw, expectAgreement, list, 50);
}

TEST_F(HintAtAnyMoment, OfAPublisherThatFollowsADeadOneAgreesWithTheFolder) {
    // Judged as well, in every other round: then the dead one is cleared away meanwhile.
    killAtEveryStep(
        publishAndDie, publishAndWithdraw, [] {},
        [] {
            find();
            list();
        },
        50);
    killAtEveryStep(publishAndDie, publishAndWithdraw, expectAgreement, find, 50);
}

TEST_F(HintAtAnyMoment, OfAReaderThatClearsUpIsBounded) {
    killAtEveryStep(
        publishAndDie, lookUp, [] {}, find, 20);
    killAtEveryStep(
        publishAndDie, [] { Endpoint::list(); }, [] {}, list, 20);
}

TEST_F(HintAtAnyMoment, OfAReaderMisleadsNoOther) {
    const auto mislead = [] {
        tests::plantHint(tag, key, tests::entryName(data, tag, key, tests::noProcess));
    };
    killAtEveryStep(
        mislead, lookUp, [] {}, find, 20);
}

TEST_F(HintAtAnyMoment, MayBeLostToAReaderButTheEntryIsFound) {
    // A reader is stopped at each of its steps while the key that it finds dead is published anew.
    int step = 0;
    for (bool isOnTheWay = true; isOnTheWay; ++step) {
        SCOPED_TRACE("stopped at step " + std::to_string(step));
        ASSERT_NO_FATAL_FAILURE(publishAndDie());
        TracedProcess reader(lookUp);
        isOnTheWay = reader.run(step);
        Endpoint endpoint(data, tag, key);
        EXPECT_TRUE(tests::isFoundByHint(data, tag, key));
        if (isOnTheWay) {
            constexpr int untilTheEnd = 10'000'000;
            EXPECT_FALSE(reader.run(untilTheEnd));
        }
        EXPECT_EQ(Endpoint::find(tag, key), data);
        endpoint.reset();
        EXPECT_EQ(Endpoint::find(tag, key), std::nullopt);
        EXPECT_EQ(Endpoint::list(), DataPairs());
        ASSERT_EQ(tests::hintFiles(), std::vector<std::string>());
    }
    EXPECT_GT(step, 20);
}
