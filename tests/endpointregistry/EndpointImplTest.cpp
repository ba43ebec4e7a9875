#include "endpointregistry/detail/EndpointImpl.h"

#include "endpointregistry/EntryName.h"
#include "endpointregistry/Groups.h"
#include "endpointregistry/detail/EndpointPosixImpl.h"
#include "tests/endpointregistry/EndpointTools.h"
#include "tests/endpointregistry/LoggersReportedFailure.h"

#include <algorithm>
#include <filesystem>
#include <gtest/gtest.h>
#include <set>
#include <string>
#include <type_traits>
#include <unistd.h>
#include <vector>

using namespace agent::spf::endpointregistry;
using tests::DataPair;
using tests::noProcess;
using tests::PlantedEntry;

static_assert(std::is_abstract_v<Endpoint::Impl> && std::has_virtual_destructor_v<Endpoint::Impl>);
static_assert(std::is_base_of_v<Endpoint::Impl, Endpoint::PosixImpl>);

namespace {

using Record = Endpoint::PosixImpl;
using Names = std::set<std::string>;

class EndpointRecords : public tests::RegistryTest {
protected:
    const std::string tag = "tag";
    const DataPair data{"ab", "c"};

    std::string nameOf(const DataPair& someData, const std::string& key) const {
        return tests::entryName(someData, tag, key, ::getpid());
    }
};

/// Asks the record itself, whose overload for any entry hides this one.
DataPair dataOf(const Endpoint::Impl& record) {
    return record.getDataPair();
}

Names asSet(const std::vector<std::string>& names) {
    return {names.begin(), names.end()};
}

} // namespace

TEST_F(EndpointRecords, LieInOneFolder) {
    EXPECT_STREQ(Endpoint::Impl::LF_PARENT_PATH, "qvEndpointRegistry");
}

TEST_F(EndpointRecords, TellWhatTheyWereMadeOf) {
    const Record record(data, tag, "key", "");
    EXPECT_EQ(record.getGroupTag(), tag);
    EXPECT_EQ(record.getSelectedKey(), "key");
    EXPECT_EQ(record.getTrustee(), "");
    EXPECT_EQ(dataOf(record), data);
}

TEST_F(EndpointRecords, RefuseATrusteeThatIsNoGroupOfTheUser) {
    std::string groups;
    for (const std::string& group : getCurrentUserGroups()) {
        groups += ", " + group;
    }
    tests::expectLogged(
        [&] {
            tests::expectThrown<std::invalid_argument>(
                [&] { const Record record(data, tag, "key", "no such group"); },
                "endpointregistry::checkTrustee: no such group is not among the allowed trustees "
                "of user" +
                    getCurrentUserName() + ". \nAllowed trustees list: " + groups);
        },
        {});
    EXPECT_FALSE(std::filesystem::exists(tests::entryFolder()));
}

TEST_F(EndpointRecords, AreFilteredByGroupTag) {
    const Record first(data, tag, "key", "");
    const Record second({"x", ""}, tag, "other key", "");
    const Record third(data, "other tag", "key", "");
    EXPECT_EQ(asSet(Endpoint::Impl::filterNames(tag, "")),
              (Names{nameOf(data, "key"), nameOf({"x", ""}, "other key")}));
    EXPECT_EQ(Endpoint::Impl::filterNames("other tag", ""),
              std::vector<std::string>{tests::entryName(data, "other tag", "key", ::getpid())});
    EXPECT_EQ(Endpoint::Impl::filterNames("third tag", ""), std::vector<std::string>());
    EXPECT_EQ(Endpoint::Impl::filterNames("", "").size(), 3U);
}

TEST_F(EndpointRecords, AreFoundByGroupTagAndSelectedKey) {
    const Record first(data, tag, "key", "");
    const Record second({"x", ""}, tag, "other key", "");
    const Record third({"y", ""}, "other tag", "key", "");
    EXPECT_EQ(Endpoint::Impl::findNames(tag, "key", ""),
              std::vector<std::string>{nameOf(data, "key")});
    EXPECT_EQ(Endpoint::Impl::findNames("other tag", "other key", ""), std::vector<std::string>());
    EXPECT_EQ(Endpoint::Impl::findNames("", "key", "").size(), 2U);
    EXPECT_EQ(Endpoint::Impl::findNames(tag, "", "").size(), 2U);
}

TEST_F(EndpointRecords, AreNamedDeadOrAlive) {
    const PlantedEntry dead(tests::entryName(data, tag, "key", noProcess),
                            tests::segmentBytes(data));
    const std::vector<std::string> itsName{dead.name()};
    EXPECT_EQ(Endpoint::Impl::filterNames(tag, ""), itsName);
    EXPECT_EQ(Endpoint::Impl::findNames(tag, "key", ""), itsName);
    EXPECT_EQ(Endpoint::Impl::getAllSynonymNames(data, tag, "key"), Names{dead.name()});
    EXPECT_TRUE(dead.hasFile());
    EXPECT_TRUE(dead.hasSegment());
}

TEST_F(EndpointRecords, AreNoneWhereThereIsNoFolder) {
    EXPECT_EQ(Endpoint::Impl::filterNames("", ""), std::vector<std::string>());
    EXPECT_EQ(Endpoint::Impl::findNames("", "", ""), std::vector<std::string>());
    EXPECT_EQ(Endpoint::Impl::getAllSynonymNames(data, tag, "key"), Names());
    EXPECT_EQ(Endpoint::Impl::countSynonymEndpoints(data, tag, "key"), 0U);
    EXPECT_FALSE(std::filesystem::exists(tests::entryFolder()));
}

TEST_F(EndpointRecords, AreSynonymsByTheirKeyOrByTheirDataWithinAGroupTag) {
    const Record sameKey({"x", ""}, tag, "key", "");
    const Record sameData(data, tag, "other key", "");
    const Record otherTag(data, "other tag", "key", "");
    const Record unrelated({"y", ""}, tag, "third key", "");
    EXPECT_EQ(Endpoint::Impl::getAllSynonymNames(data, tag, "key"),
              (Names{nameOf({"x", ""}, "key"), nameOf(data, "other key")}));
    EXPECT_EQ(Endpoint::Impl::countSynonymEndpoints(data, tag, "key"), 2U);
}

TEST_F(EndpointRecords, AreSynonymsHoweverTheDataIsSplit) {
    const Record record({"a", "bc"}, tag, "other key", "");
    EXPECT_EQ(Endpoint::Impl::countSynonymEndpoints({"ab", "c"}, tag, "key"), 1U);
    EXPECT_EQ(Endpoint::Impl::countSynonymEndpoints({"abc", ""}, tag, "key"), 1U);
}

TEST_F(EndpointRecords, CountOnceWithTheSameKeyAndTheSameData) {
    const Record record(data, tag, "key", "");
    EXPECT_EQ(Endpoint::Impl::getAllSynonymNames(data, tag, "key"), Names{nameOf(data, "key")});
    EXPECT_EQ(Endpoint::Impl::countSynonymEndpoints(data, tag, "key"), 1U);
}

TEST_F(EndpointRecords, CountAsSynonymsOnlyWhileTheyLive) {
    PlantedEntry entry(tests::entryName(data, tag, "key", noProcess), tests::segmentBytes(data));
    EXPECT_EQ(Endpoint::Impl::countSynonymEndpoints(data, tag, "key"), 0U);
    entry.hold();
    EXPECT_EQ(Endpoint::Impl::countSynonymEndpoints(data, tag, "key"), 1U);
    EXPECT_TRUE(entry.hasFile());
}

TEST_F(EndpointRecords, AreAllSynonymsOfAnEmptyKeyOfTheirGroupTag) {
    const Record first(data, tag, "key", "");
    const Record second({"x", ""}, tag, "other key", "");
    const Record otherTag({"y", ""}, "other tag", "key", "");
    EXPECT_EQ(Endpoint::Impl::countSynonymEndpoints({"z", ""}, tag, ""), 2U);
}

TEST_F(EndpointRecords, OfAnyGroupTagAreSynonymsOfTheEmptyOne) {
    const Record first(data, tag, "key", "");
    const Record second({"x", ""}, "other tag", "key", "");
    const Record otherKey({"y", ""}, tag, "other key", "");
    EXPECT_EQ(Endpoint::Impl::countSynonymEndpoints({"z", ""}, "", "key"), 2U);
}

TEST_F(EndpointRecords, OfNobodyAreReadForATrustee) {
    const Record record(data, tag, "key", "");
    EXPECT_EQ(Endpoint::Impl::getDataPair(nameOf(data, "key"), ""), data);
    EXPECT_EQ(Endpoint::Impl::getDataPair(nameOf(data, "key"), "friends"), DataPair());
}

TEST_F(EndpointRecords, AreReadAfreshEveryTime) {
    const std::string name = nameOf(data, "key");
    const Record record(data, tag, "key", "");
    std::filesystem::remove(tests::segmentPath(name));
    EXPECT_EQ(dataOf(record), DataPair());
    tests::plantSegment(name, tests::segmentBytes({"d", "ef"}));
    EXPECT_EQ(dataOf(record), DataPair("d", "ef"));
    std::filesystem::remove(tests::segmentPath(name));
}
