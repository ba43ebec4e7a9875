#include "endpointregistry/Endpoint.h"

#include "tests/endpointregistry/EndpointTools.h"
#include "tests/endpointregistry/LockedFileTools.h"
#include "tests/endpointregistry/LoggersReportedFailure.h"

#include <filesystem>
#include <functional>
#include <gtest/gtest.h>
#include <optional>
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

const DataPair data("ab", "c");
const std::string tag = "tag";
const std::string key = "key";

class Publication : public tests::RegistryTest {};

void expectRefused(const std::function<void()>& publication, const std::string& text,
                   const std::string& message) {
    tests::expectReported<std::invalid_argument>(publication, text, message);
    // Not even the folders are made.
    EXPECT_FALSE(std::filesystem::exists(tests::entryFolder()));
}

void expectDuplicate(const std::function<void()>& publication) {
    tests::expectLogged(
        [&] {
            tests::expectThrown<Endpoint::DuplicateEndpointError>(
                publication, "Endpoint already exists in registry: "
                             "A synonym endpoint has been found during construction");
        },
        {});
}

std::vector<std::string> nameOf(const DataPair& someData, const std::string& someKey) {
    return {tests::entryName(someData, tag, someKey, ::getpid())};
}

const std::string noData = "Endpoint data strings cannot be both empty";
const std::string noDataLogged = "Endpoint(): Data strings cannot be both empty.";
const std::string noTag = "Endpoint group tag cannot be empty";
const std::string noTagLogged = "Endpoint(): Group tag cannot be empty.";
const std::string noKey = "Endpoint selected key cannot be  empty";
const std::string noKeyLogged = "Endpoint(): The selected key cannot be empty.";

} // namespace

TEST_F(Publication, IsRefusedWithoutData) {
    expectRefused([] { Endpoint({"", ""}, tag, key); }, noData, noDataLogged);
    expectRefused([] { Endpoint({"", ""}, tag); }, noData, noDataLogged);
    expectRefused([] { Endpoint::publish("", "", tag, key); }, noData, noDataLogged);
    expectRefused([] { Endpoint::publish("", "", tag); }, noData, noDataLogged);
}

TEST_F(Publication, IsRefusedWithoutAGroupTag) {
    expectRefused([] { Endpoint(data, "", key); }, noTag, noTagLogged);
    expectRefused([] { Endpoint(data, ""); }, noTag, noTagLogged);
    expectRefused([] { Endpoint::publish("ab", "c", "", key); }, noTag, noTagLogged);
    expectRefused([] { Endpoint::publish("ab", "c", ""); }, noTag, noTagLogged);
}

TEST_F(Publication, IsRefusedWithoutASelectedKey) {
    expectRefused([] { Endpoint(data, tag, ""); }, noKey, noKeyLogged);
    expectRefused([] { Endpoint::publish("ab", "c", tag, ""); }, noKey, noKeyLogged);
}

TEST_F(Publication, IsRefusedForTheDataFirstAndForTheKeyLast) {
    expectRefused([] { Endpoint({"", ""}, "", ""); }, noData, noDataLogged);
    expectRefused([] { Endpoint({"", ""}, "", key); }, noData, noDataLogged);
    expectRefused([] { Endpoint({"", ""}, tag, ""); }, noData, noDataLogged);
    expectRefused([] { Endpoint(data, "", ""); }, noTag, noTagLogged);
}

TEST_F(Publication, IsRefusedWithTheSameTextWhenNothingIsLogged) {
    tests::expectThrown<std::invalid_argument>([] { Endpoint({"", ""}, tag, key); }, noData);
    tests::expectThrown<std::invalid_argument>([] { Endpoint(data, "", key); }, noTag);
    tests::expectThrown<std::invalid_argument>([] { Endpoint(data, tag, ""); }, noKey);
}

TEST_F(Publication, NeedsOneDataStringOnly) {
    const Endpoint first({"", "x"}, tag, "first");
    const Endpoint second({"y", ""}, tag, "second");
    EXPECT_EQ(Endpoint::find(tag, "first"), DataPair("", "x"));
    EXPECT_EQ(Endpoint::find(tag, "second"), DataPair("y", ""));
}

TEST_F(Publication, IsFoundUnderItsTagAndItsKey) {
    const Endpoint endpoint(data, tag, key);
    EXPECT_TRUE(endpoint);
    EXPECT_EQ(tests::entryFiles(), nameOf(data, key));
    EXPECT_EQ(Endpoint::find(tag, key), data);
}

TEST_F(Publication, SelectsByTheDataUnlessAKeyIsGiven) {
    {
        const Endpoint endpoint(data, tag);
        EXPECT_EQ(tests::entryFiles(), nameOf(data, "abc"));
    }
    {
        const Endpoint endpoint = Endpoint::publish("ab", "c", tag);
        EXPECT_EQ(tests::entryFiles(), nameOf(data, "abc"));
        EXPECT_EQ(Endpoint::find(tag, "abc"), data);
    }
    const Endpoint endpoint = Endpoint::publish("ab", "c", tag, key);
    EXPECT_EQ(tests::entryFiles(), nameOf(data, key));
    EXPECT_EQ(Endpoint::find(tag, key), data);
}

TEST_F(Publication, TakesAnyBytes) {
    const DataPair bytes("a\0b\xff"s, "\n/../\0"s);
    const std::string strangeTag = "/\0\xfe\n"s;
    const std::string strangeKey = "../..\0"s;
    const Endpoint endpoint(bytes, strangeTag, strangeKey);
    EXPECT_EQ(Endpoint::find(strangeTag, strangeKey), bytes);
    EXPECT_EQ(Endpoint::find("/", strangeKey), std::nullopt);
    EXPECT_EQ(Endpoint::filter(strangeTag), DataPairs{bytes});
}

TEST_F(Publication, TakesLongStrings) {
    const DataPair bytes(std::string(1'000'000, 'x'), std::string(1'000'000, 'y'));
    const std::string longTag(100'000, 't');
    const Endpoint endpoint(bytes, longTag);
    EXPECT_EQ(Endpoint::find(longTag, bytes.first + bytes.second), bytes);
}

TEST_F(Publication, IsRefusedWhileASynonymLives) {
    const Endpoint endpoint(data, tag, key);
    expectDuplicate([] { Endpoint(data, tag, key); });
    expectDuplicate([] { Endpoint({"other", "data"}, tag, key); });
    expectDuplicate([] { Endpoint(data, tag, "other key"); });
    expectDuplicate([] { Endpoint({"a", "bc"}, tag, "other key"); });
    expectDuplicate([] { Endpoint::publish("ab", "c", tag); });
    expectDuplicate([] { Endpoint::publish("ab", "c", tag, key); });
    EXPECT_EQ(tests::entryFiles(), nameOf(data, key));
    EXPECT_EQ(Endpoint::find(tag, key), data);
}

TEST_F(Publication, IsRefusedWhileAnotherProcessHoldsASynonym) {
    PlantedEntry entry(tests::entryName({"other", "data"}, tag, key, ::getppid()),
                       tests::segmentBytes({"other", "data"}));
    entry.hold();
    expectDuplicate([] { Endpoint(data, tag, key); });
    EXPECT_EQ(Endpoint::find(tag, key), DataPair("other", "data"));
}

TEST_F(Publication, OfSynonymsIsFreeUnderAnotherGroupTag) {
    const Endpoint first(data, tag, key);
    const Endpoint second(data, "other tag", key);
    EXPECT_EQ(Endpoint::find(tag, key), data);
    EXPECT_EQ(Endpoint::find("other tag", key), data);
}

TEST_F(Publication, DoesNotMindADeadSynonym) {
    const DataPair old("old", "");
    const PlantedEntry dead(tests::entryName(old, tag, key, tests::noProcess),
                            tests::segmentBytes(old));
    const Endpoint endpoint(data, tag, key);
    EXPECT_EQ(Endpoint::find(tag, key), data);
    EXPECT_EQ(Endpoint::list(), DataPairs{data});
    EXPECT_FALSE(dead.hasFile());
    EXPECT_FALSE(dead.hasSegment());
}

TEST_F(Publication, TakesOverWhatADeadProcessOfTheSameIdLeft) {
    const PlantedEntry dead(nameOf(data, key).front(), tests::segmentBytes({"", "old"}));
    Endpoint endpoint(data, tag, key);
    EXPECT_EQ(Endpoint::find(tag, key), data);
    endpoint.reset();
    EXPECT_FALSE(dead.hasFile());
    EXPECT_FALSE(dead.hasSegment());
}

TEST_F(Publication, IsPossibleAgainAfterWithdrawal) {
    Endpoint endpoint(data, tag, key);
    endpoint.reset();
    EXPECT_FALSE(endpoint);
    EXPECT_EQ(tests::entryFiles(), std::vector<std::string>());
    EXPECT_EQ(Endpoint::find(tag, key), std::nullopt);
    const Endpoint again({"a", "bc"}, tag, key);
    EXPECT_EQ(Endpoint::find(tag, key), DataPair("a", "bc"));
}

TEST_F(Publication, EndsWithTheObject) {
    {
        const Endpoint endpoint(data, tag, key);
        EXPECT_EQ(tests::segmentFiles().size(), 1U);
    }
    EXPECT_EQ(tests::entryFiles(), std::vector<std::string>());
    EXPECT_EQ(tests::segmentFiles(), std::vector<std::string>());
}

TEST_F(Publication, OfManyEndpointsWorks) {
    std::vector<Endpoint> endpoints;
    endpoints.reserve(100);
    for (int i = 0; i < 100; ++i) {
        endpoints.emplace_back(DataPair(std::to_string(i), ""), tag);
    }
    EXPECT_EQ(Endpoint::filter(tag).size(), 100U);
    EXPECT_EQ(Endpoint::find(tag, "57"), DataPair("57", ""));
    endpoints.erase(endpoints.begin() + 57);
    EXPECT_EQ(Endpoint::find(tag, "57"), std::nullopt);
    EXPECT_EQ(Endpoint::filter(tag).size(), 99U);
}
