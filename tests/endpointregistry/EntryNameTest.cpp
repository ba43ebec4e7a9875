#include "endpointregistry/EntryName.h"

#include "tests/support/ForkedProcess.h"

#include <gtest/gtest.h>
#include <limits>
#include <string>
#include <unistd.h>
#include <utility>

using namespace agent::spf::endpointregistry;

namespace {

using DataPair = std::pair<std::string, std::string>;

std::string pidField() {
    return "p" + std::to_string(::getpid());
}

} // namespace

TEST(EntryName, JoinsPrefixGroupDataKeyLengthProcessAndVersion) {
    EXPECT_EQ(getName({"alpha", "beta"}, "grp", "key", 0, ""),
              "qvER26cb632b19fb46fe2df70d375c012084k99856d7c6e9accf9l9" + pidField() + "v0");
}

TEST(EntryName, LeavesTheGroupFieldEmptyForAnEmptyTag) {
    EXPECT_EQ(getName({"alpha", "beta"}, "", "key", 0, ""),
              "qvER2df70d375c012084k99856d7c6e9accf9l9" + pidField() + "v0");
}

TEST(EntryName, LeavesTheDataAndKeyFieldsEmptyForEmptyTexts) {
    EXPECT_EQ(getName({"", ""}, "grp", "", 0, ""), "qvER26cb632b19fb46fekl0" + pidField() + "v0");
}

TEST(EntryName, OfNothingButEmptyTextsKeepsItsMarkers) {
    EXPECT_EQ(getName({"", ""}, "", "", 0, ""), "qvERkl0" + pidField() + "v0");
}

TEST(EntryName, TakesTheFirstDataStringAloneAndTheSecondAloneForTheSame) {
    EXPECT_EQ(getName({"abc", ""}, "grp", "key", 0, ""), getName({"", "abc"}, "grp", "key", 0, ""));
    EXPECT_EQ(getName({"abc", ""}, "grp", "key", 0, ""),
              "qvER26cb632b19fb46fe3a912f483a4ece31k99856d7c6e9accf9l3" + pidField() + "v0");
}

TEST(EntryName, DoesNotTellWhereTheDataIsSplit) {
    EXPECT_EQ(getName({"ab", "c"}, "grp", "key", 0, ""), getName({"a", "bc"}, "grp", "key", 0, ""));
}

TEST(EntryName, DoesNotDependOnTheTrustee) {
    const DataPair data{"alpha", "beta"};

    EXPECT_EQ(getName(data, "grp", "key", 0, "staff"), getName(data, "grp", "key", 0, ""));
}

TEST(EntryName, EndsInTheVersion) {
    const std::string start =
        "qvER26cb632b19fb46fe3a912f483a4ece31k99856d7c6e9accf9l3" + pidField() + "v";

    EXPECT_EQ(getName({"a", "bc"}, "grp", "key", 7, ""), start + "7");
    EXPECT_EQ(getName({"a", "bc"}, "grp", "key", std::numeric_limits<unsigned long>::max(), ""),
              start + "18446744073709551615");
}

TEST(EntryName, CarriesTheIdOfTheProcessThatBuildsIt) {
    const std::string before = getName({"a", "bc"}, "grp", "key", 0, "");

    EXPECT_EQ(tests::runInChild([&] {
                  const std::string name = getName({"a", "bc"}, "grp", "key", 0, "");
                  EXPECT_NE(name, before);
                  EXPECT_EQ(getPidFromName(name), static_cast<unsigned long>(::getpid()));
              }),
              0);
}

TEST(EntryName, CountsBytesOfTheJoinedData) {
    using namespace std::string_literals;

    EXPECT_EQ(getLengthFromName(getName({"a\0b"s, "\0"s}, "grp", "key", 0, "")), 4U);
    EXPECT_EQ(getLengthFromName(getName({"\xC3\xA4", "\xE2\x82\xAC"}, "grp", "key", 0, "")), 5U);
}

TEST(EntryName, HashesBytesBehindAZeroByte) {
    using namespace std::string_literals;

    EXPECT_NE(getGroupTagPrefix("a\0b"s), getGroupTagPrefix("a\0c"s));
    EXPECT_NE(getSelectedKeySubstring("a\0b"s), getSelectedKeySubstring("a"s));
}

TEST(EntryName, StaysShortHoweverLongTheTextsAre) {
    const std::string large(std::size_t{1} << 20U, 'x');

    const std::string name = getName({large, large}, large, large, 0, "");

    EXPECT_EQ(getLengthFromName(name), std::size_t{2} << 20U);
    EXPECT_EQ(name, "qvER" + hashString(large) + hashString(large + large) + "k" +
                        hashString(large) + "l2097152" + pidField() + "v0");
}

TEST(EntryName, BeginsWithItsGroupTagPrefixAndItsExtendedPrefix) {
    EXPECT_EQ(getGroupTagPrefix("grp"), "qvER26cb632b19fb46fe");
    EXPECT_EQ(getExtendedPrefix({"alpha", "beta"}, "grp"), "qvER26cb632b19fb46fe2df70d375c012084");

    const std::string name = getName({"alpha", "beta"}, "grp", "key", 0, "");
    EXPECT_TRUE(name.starts_with(getGroupTagPrefix("grp")));
    EXPECT_TRUE(name.starts_with(getExtendedPrefix({"alpha", "beta"}, "grp")));
}

TEST(EntryName, HasPrefixesThatEndWhereAnEmptyTextWouldStand) {
    EXPECT_EQ(getGroupTagPrefix(""), "qvER");
    EXPECT_EQ(getExtendedPrefix({"alpha", "beta"}, ""), "qvER2df70d375c012084");
    EXPECT_EQ(getExtendedPrefix({"", ""}, "grp"), getGroupTagPrefix("grp"));
    EXPECT_EQ(getExtendedPrefix({"", ""}, ""), "qvER");
}

TEST(EntryName, HasAnExtendedPrefixThatDoesNotTellWhereTheDataIsSplit) {
    EXPECT_EQ(getExtendedPrefix({"alp", "habeta"}, "grp"),
              getExtendedPrefix({"alphabeta", ""}, "grp"));
}

TEST(EntryName, ContainsItsSelectedKeySubstring) {
    EXPECT_EQ(getSelectedKeySubstring("key"), "k99856d7c6e9accf9");
    EXPECT_NE(getName({"alpha", "beta"}, "grp", "key", 0, "").find("k99856d7c6e9accf9l"),
              std::string::npos);
}

TEST(EntryName, ContainsTheSubstringOfTheEmptyKeyWhateverItsKey) {
    EXPECT_EQ(getSelectedKeySubstring(""), "k");
    EXPECT_NE(getName({"alpha", "beta"}, "grp", "key", 0, "").find('k'), std::string::npos);
}
