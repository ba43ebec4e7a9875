#include "endpointregistry/Endpoint.h"

#include "tests/endpointregistry/EndpointFolderWatch.h"
#include "tests/endpointregistry/EndpointTools.h"
#include "tests/endpointregistry/LoggersReportedFailure.h"

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <gtest/gtest.h>
#include <list>
#include <optional>
#include <set>
#include <stdexcept>
#include <string>
#include <unistd.h>
#include <vector>

using namespace agent::spf::endpointregistry;
using namespace std::string_literals;
using tests::DataPair;
using tests::DataPairs;
using tests::PlantedEntry;

namespace {

using Trustees = std::set<std::string>;

const std::string tag = "tag";
const std::string key = "key";
const Trustees own{""};

class Lookup : public tests::RegistryTest {};

} // namespace

TEST_F(Lookup, FindsNothingInAnEmptyRegistryAndMakesNothing) {
    EXPECT_EQ(Endpoint::find(tag, key), std::nullopt);
    EXPECT_EQ(Endpoint::filter(tag), DataPairs());
    EXPECT_EQ(Endpoint::list(), DataPairs());
    EXPECT_FALSE(std::filesystem::exists(tests::entryFolder()));
}

TEST_F(Lookup, FindsByTagAndKeyTogether) {
    const Endpoint first({"1", ""}, tag, key);
    const Endpoint second({"2", ""}, tag, "other key");
    const Endpoint third({"3", ""}, "other tag", key);
    EXPECT_EQ(Endpoint::find(tag, key), DataPair("1", ""));
    EXPECT_EQ(Endpoint::find(tag, "other key"), DataPair("2", ""));
    EXPECT_EQ(Endpoint::find("other tag", key), DataPair("3", ""));
    EXPECT_EQ(Endpoint::find("other tag", "other key"), std::nullopt);
    EXPECT_EQ(Endpoint::find("tag ", key), std::nullopt);
    EXPECT_EQ(Endpoint::find(tag, "ke"), std::nullopt);
}

TEST_F(Lookup, IsTheSameForOwnEntriesHoweverItIsAskedFor) {
    const Endpoint first({"1", ""}, tag, key);
    const Endpoint second({"2", ""}, "other tag", key);
    EXPECT_EQ(Endpoint::findFromLocal(tag, key), DataPair("1", ""));
    EXPECT_EQ(Endpoint::find(tag, key, own), DataPair("1", ""));
    EXPECT_EQ(Endpoint::filterFromLocal(tag), (DataPairs{{"1", ""}}));
    EXPECT_EQ(Endpoint::filter(tag, own), (DataPairs{{"1", ""}}));
    EXPECT_EQ(Endpoint::filterUsingEmptySpaceAsGroupTagWildcard(tag, own), (DataPairs{{"1", ""}}));
    EXPECT_EQ(Endpoint::listFromLocal(), (DataPairs{{"1", ""}, {"2", ""}}));
    EXPECT_EQ(Endpoint::list(own), (DataPairs{{"1", ""}, {"2", ""}}));
}

TEST_F(Lookup, TakesTheEmptyGroupTagForAnyOnlyWhereItSaysSo) {
    const Endpoint first({"1", ""}, tag, key);
    const Endpoint second({"2", ""}, "other tag", key);
    const DataPairs all{{"1", ""}, {"2", ""}};
    EXPECT_EQ(Endpoint::filter(""), DataPairs());
    EXPECT_EQ(Endpoint::filter("", own), DataPairs());
    EXPECT_EQ(Endpoint::filterFromLocal(""), DataPairs());
    EXPECT_EQ(Endpoint::filterUsingEmptySpaceAsGroupTagWildcard("", own), all);
    EXPECT_EQ(Endpoint::list(), all);
}

TEST_F(Lookup, DoesNotTestTheTagAndTheKeyThatItFindsBy) {
    const Endpoint endpoint({"1", ""}, tag, key);
    EXPECT_EQ(Endpoint::find("", key), DataPair("1", ""));
    EXPECT_EQ(Endpoint::find(tag, ""), DataPair("1", ""));
    EXPECT_EQ(Endpoint::find("", ""), DataPair("1", ""));
}

TEST_F(Lookup, SortsByTheBytesOfTheFirstStringAndThenOfTheSecond) {
    const DataPairs sorted{{"", "z"},     {"\0"s, "1"},   {"\0a"s, "2"}, {"a", ""},
                           {"a", "\0"s},  {"a", "b"},     {"a", "\x80"}, {"a\0"s, "3"},
                           {"aa", "a"},   {"b", "a"},     {"\x7f", "4"}, {"\x80", "5"},
                           {"\xc3", "6"}, {"\xff", "\0"s}};
    ASSERT_TRUE(std::is_sorted(sorted.begin(), sorted.end()));
    std::vector<Endpoint> endpoints;
    for (std::size_t i = 0; i < sorted.size(); ++i) {
        // Published in another order, each under its own tag: some hold the same joined data.
        const std::size_t chosen = (i * 5) % sorted.size();
        endpoints.emplace_back(sorted.at(chosen), "tag " + std::to_string(chosen), key);
    }
    EXPECT_EQ(Endpoint::list(), sorted);
}

TEST_F(Lookup, ListsEqualDataOnce) {
    const Endpoint first({"a", "b"}, tag, key);
    const Endpoint second({"a", "b"}, "other tag", key);
    const Endpoint third({"ab", ""}, "third tag", key);
    EXPECT_EQ(Endpoint::list(), (DataPairs{{"a", "b"}, {"ab", ""}}));
}

TEST_F(Lookup, SearchesNothingForNoTrustee) {
    const Endpoint endpoint({"1", ""}, tag, key);
    EXPECT_EQ(Endpoint::find(tag, key, Trustees()), std::nullopt);
    EXPECT_EQ(Endpoint::filter(tag, Trustees()), DataPairs());
    EXPECT_EQ(Endpoint::filterUsingEmptySpaceAsGroupTagWildcard("", Trustees()), DataPairs());
    EXPECT_EQ(Endpoint::list(Trustees()), DataPairs());
}

TEST_F(Lookup, DoesNotLookWhereThereIsNothingToSearchFor) {
    tests::provideEntryFolder();
    std::filesystem::remove_all(tests::entryFolder());
    const std::string path = tests::entryFolder().substr(0, tests::entryFolder().size() - 1);
    std::ofstream(path).flush();
    EXPECT_THROW(Endpoint::list(), std::runtime_error);
    tests::expectLogged(
        [] {
            EXPECT_EQ(Endpoint::find(tag, key, Trustees()), std::nullopt);
            EXPECT_EQ(Endpoint::filter(""), DataPairs());
            EXPECT_EQ(Endpoint::filterFromAllTrustees(""), DataPairs());
        },
        {});
    std::filesystem::remove(path);
}

TEST_F(Lookup, PassesOverTheDeadAndClearsThemAway) {
    const DataPair data("dead", "data");
    const PlantedEntry first(tests::entryName(data, tag, key, tests::noProcess),
                             tests::segmentBytes(data));
    const PlantedEntry second(tests::entryName(data, "other tag", key, tests::noProcess),
                              tests::segmentBytes(data));
    const Endpoint living({"living", "data"}, tag, key);
    EXPECT_EQ(Endpoint::find(tag, key), DataPair("living", "data"));
    EXPECT_TRUE(second.hasFile());
    EXPECT_EQ(Endpoint::list(), (DataPairs{{"living", "data"}}));
    EXPECT_FALSE(first.hasFile() || first.hasSegment());
    EXPECT_FALSE(second.hasFile() || second.hasSegment());
}

TEST_F(Lookup, FindsEachOfMany) {
    constexpr int count = 300;
    std::vector<Endpoint> endpoints;
    for (int i = 0; i < count; ++i) {
        endpoints.emplace_back(DataPair(std::to_string(i), ""), tag, std::to_string(i));
    }
    for (int i = 0; i < count; ++i) {
        EXPECT_EQ(Endpoint::find(tag, std::to_string(i)), DataPair(std::to_string(i), ""));
    }
    EXPECT_EQ(Endpoint::find(tag, "another"), std::nullopt);
}

TEST_F(Lookup, FindsTheLivingAmongManyDead) {
    constexpr int count = 100;
    std::list<PlantedEntry> dead;
    const auto leaveDead = [&](int from) {
        for (int i = from; i < from + count; ++i) {
            const DataPair data("dead", std::to_string(i));
            dead.emplace_back(tests::entryName(data, tag, key, tests::noProcess),
                              tests::segmentBytes(data));
        }
    };
    leaveDead(0);
    const Endpoint endpoint({"1", ""}, tag, key);
    leaveDead(count);
    EXPECT_EQ(Endpoint::find(tag, key), DataPair("1", ""));
    EXPECT_EQ(Endpoint::list(), (DataPairs{{"1", ""}}));
    EXPECT_EQ(tests::entryFiles().size(), 1U);
}

TEST_F(Lookup, PassesOverWhatCannotBeRead) {
    const DataPair data("some", "data");
    PlantedEntry notReady(tests::entryName(data, tag, "1", ::getpid()),
                          tests::segmentBytes(data, 0));
    PlantedEntry noData(tests::entryName({"", ""}, tag, "2", ::getpid()),
                        tests::segmentBytes({"", ""}));
    PlantedEntry noSegment(tests::entryName(data, tag, "3", ::getpid()), "");
    for (PlantedEntry* entry : {&notReady, &noData, &noSegment}) {
        entry->hold();
    }
    EXPECT_EQ(Endpoint::find(tag, ""), std::nullopt);
    EXPECT_EQ(Endpoint::list(), DataPairs());
    const Endpoint readable({"1", ""}, tag, "4");
    EXPECT_EQ(Endpoint::find(tag, ""), DataPair("1", ""));
    EXPECT_EQ(Endpoint::list(), (DataPairs{{"1", ""}}));
    EXPECT_EQ(tests::entryFiles().size(), 4U);
}

TEST_F(Lookup, ChangesNothingAboutTheLiving) {
    const Endpoint endpoint({"1", ""}, tag, key);
    tests::FolderWatch watch({tests::entryFolder(), "/dev/shm"});
    tests::expectLogged(
        [] {
            Endpoint::find(tag, key);
            Endpoint::find(tag, "missing");
            Endpoint::filter(tag);
            Endpoint::list();
        },
        {});
    EXPECT_EQ(watch.changes(), std::vector<std::string>());
}
