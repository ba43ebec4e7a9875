#include "endpointregistry/Endpoint.h"

#include "tests/endpointregistry/EndpointProcesses.h"
#include "tests/endpointregistry/SharingTools.h"
#include "tests/support/TestAccounts.h"

#include <algorithm>
#include <cstddef>
#include <gtest/gtest.h>
#include <list>
#include <string>
#include <vector>

using namespace agent::spf::endpointregistry;
using tests::as;
using tests::Channel;
using tests::Crew;
using tests::DataPair;
using tests::DataPairs;
using tests::Trustees;

namespace {

namespace accounts = tests::accounts;
using accounts::anna;
using accounts::ben;
using accounts::friends;

constexpr std::size_t publisherCount = 6;
constexpr std::size_t entriesEach = 50;
const std::string tag = "tag";

/// Entries of different lengths, so that rows do not have the length of the table's.
DataPair dataOf(std::size_t publisher, std::size_t entry) {
    return {"publisher " + std::to_string(publisher), std::string(entry * 7, 'x') + "end"};
}

/// In a process of anna's or of ben's: shares many entries and keeps them until it is told.
void shareMany(std::size_t publisher, Channel& test) {
    accounts::become(publisher % 2 == 0 ? anna : ben);
    std::list<Endpoint> endpoints;
    for (std::size_t entry = 0; entry < entriesEach; ++entry) {
        const std::string key = std::to_string(publisher) + "/" + std::to_string(entry);
        endpoints.emplace_back(dataOf(publisher, entry), tag, key);
        endpoints.back().addTrustees({friends});
    }
    test.send("shared");
    test.receive();
}

DataPairs entriesOf(const std::vector<std::size_t>& publishers) {
    DataPairs all;
    for (const std::size_t publisher : publishers) {
        for (std::size_t entry = 0; entry < entriesEach; ++entry) {
            all.push_back(dataOf(publisher, entry));
        }
    }
    std::sort(all.begin(), all.end());
    return all;
}

void expectListed(const std::vector<std::size_t>& publishers) {
    const DataPairs expected = entriesOf(publishers);
    EXPECT_EQ(Endpoint::list({friends}), expected);
    EXPECT_EQ(Endpoint::filter(tag, {friends}), expected);
    EXPECT_EQ(tests::sharedEntries(friends).size(), expected.size());
    EXPECT_EQ(tests::rowsOf(friends).size(), expected.size());
}

class EndpointSharingListing : public tests::SharingTest {};

} // namespace

TEST_F(EndpointSharingListing, TellsAllEntriesOfManyProcessesAndNoneOfTheDead) {
    const Crew publishers(publisherCount, shareMany);
    publishers.hear();
    as(ben, [] {
        expectListed({0, 1, 2, 3, 4, 5});
        for (std::size_t entry = 0; entry < entriesEach; ++entry) {
            EXPECT_EQ(Endpoint::find(tag, "2/" + std::to_string(entry), {friends}),
                      dataOf(2, entry));
        }
    });
    publishers[0].kill();
    publishers[3].kill();
    as(ben, [] { expectListed({1, 2, 4, 5}); });
    for (const std::size_t ending : {1U, 2U}) {
        publishers[ending].channel().send("end");
        EXPECT_EQ(publishers[ending].waitForExit(), 0);
    }
    as(anna, [] { expectListed({4, 5}); });
    publishers[4].kill();
    publishers[5].kill();
    as(anna, [] { expectListed({}); });
}

TEST_F(EndpointSharingListing, OfATagLeavesTheDeadOfOtherTagsToOtherLookups) {
    tests::Sharer publisher(anna, {"first", "second"}, tag, "key", {friends});
    publisher.kill();
    as(ben, [] {
        EXPECT_EQ(Endpoint::filter("other tag", {friends}), DataPairs());
        EXPECT_EQ(tests::rowsOf(friends).size(), 1U);
        EXPECT_EQ(Endpoint::filter(tag, {friends}), DataPairs());
        tests::expectNothingShared(friends);
    });
}
