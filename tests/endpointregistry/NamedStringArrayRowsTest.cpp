#include "endpointregistry/NamedStringArray.h"

#include "tests/endpointregistry/NamedStringArrayTools.h"

#include <gtest/gtest.h>
#include <string>

using tests::Dimensions;
using tests::Entries;
using tests::Entry;

namespace {

class NamedStringArrayRows : public tests::NamedStringArrayTest {};

} // namespace

TEST_F(NamedStringArrayRows, AreReadBackWithAllElementsInTheOrderOfTheirRows) {
    array.insert(Entry{"b", "second", ""});
    array.insert(Entry{"a"});
    array.insert(Entry{"c", "\xff\x01", "third"});
    EXPECT_EQ(array.filter({}), (Entries{{"b", "second", ""}, {"a"}, {"c", "\xff\x01", "third"}}));
}

TEST_F(NamedStringArrayRows, OfOneElementMayBeGivenAsStrings) {
    array.insert("a");
    array.insert(std::string("b"));
    EXPECT_EQ(array.filter({}), (Entries{{"a"}, {"b"}}));
    array.erase("a");
    EXPECT_EQ(array.filter({}), Entries{{"b"}});
    array.erase(std::string("b"));
    EXPECT_EQ(array.filter({}), Entries());
}

TEST_F(NamedStringArrayRows, MayBeWrittenInBraces) {
    array.insert({"ab", "cd"});
    array.insert({"ab", "cd", "ef"});
    EXPECT_EQ(array.filter({}), (Entries{{"ab", "cd"}, {"ab", "cd", "ef"}}));
    array.erase({"ab", "cd"});
    EXPECT_EQ(array.filter({}), (Entries{{"ab", "cd", "ef"}}));
}

TEST_F(NamedStringArrayRows, MayHaveEmptyElementsBesideOneThatIsNot) {
    array.insert(Entry{"", "x"});
    array.insert(Entry{"", "", "y", ""});
    EXPECT_EQ(array.filter({}), (Entries{{"", "x"}, {"", "", "y", ""}}));
    EXPECT_EQ(array.filter({"x"}), Entries());
    array.erase(Entry{"", "x"});
    EXPECT_EQ(array.filter({}), (Entries{{"", "", "y", ""}}));
}

TEST_F(NamedStringArrayRows, MayHave127Elements) {
    Entry most(127);
    most.at(126) = "last";
    array.insert(most);
    EXPECT_EQ(array.filter({}), Entries{most});
    EXPECT_EQ(table.dimensions(), Dimensions(10, 132));
    array.erase(most);
    EXPECT_EQ(table.dimensions(), Dimensions(0, 0));
}

TEST_F(NamedStringArrayRows, MayBeLong) {
    const Entry longest{std::string(1'000'000, 'a'), std::string(100'000, 'b')};
    array.insert("short");
    array.insert(longest);
    EXPECT_EQ(array.filter({"aaa"}), Entries{longest});
    array.erase(longest);
    EXPECT_EQ(array.filter({}), Entries{{"short"}});
    EXPECT_EQ(table.dimensions(), Dimensions(10, 8));
}

TEST_F(NamedStringArrayRows, ThatAreEqualAreTwo) {
    array.insert(Entry{"a", "b"});
    array.insert(Entry{"a", "b"});
    EXPECT_EQ(array.filter({}), (Entries{{"a", "b"}, {"a", "b"}}));
    array.erase(Entry{"a", "b"});
    EXPECT_EQ(array.filter({}), (Entries{{"a", "b"}}));
    array.erase(Entry{"a", "b"});
    EXPECT_EQ(array.filter({}), Entries());
}

TEST_F(NamedStringArrayRows, AreErasedOnlyWhenAllElementsAreEqual) {
    const Entries entries{{"a", "b", "c"}, {"a"}, {"ab"}, {"a", "bc"}, {"a", "c"}, {"b", "b"}};
    for (const Entry& entry : entries) {
        array.insert(entry);
    }
    for (const Entry& other : Entries{{"a", "b"}, {"b"}, {"a", ""}, {"", "a"}, {}, {""}, {"abc"}}) {
        array.erase(other);
        EXPECT_EQ(array.filter({}), entries);
    }
    array.erase(Entry(128, "a"));
    array.erase(std::string("a\0", 2));
    array.erase(Entry{std::string("a\0b", 3)});
    array.erase(std::string(1'000'000, 'a'));
    EXPECT_EQ(array.filter({}), entries);
}

TEST_F(NamedStringArrayRows, ThatAreFirstAmongEqualsAreErased) {
    for (const char* const element : {"twice", "between", "twice", "last"}) {
        array.insert(element);
    }
    array.erase("twice");
    EXPECT_EQ(array.filter({}), (Entries{{"between"}, {"twice"}, {"last"}}));
}

TEST_F(NamedStringArrayRows, ThatWereFreedAreUsedBeforeTheTableGrows) {
    for (unsigned number = 0; number < 10; ++number) {
        array.insert(tests::numbered(number));
    }
    const auto generation = table.generation();
    array.erase(tests::numbered(3));
    array.erase(tests::numbered(7));
    array.insert(tests::numbered(20));
    array.insert(tests::numbered(21));
    Entries expected = tests::numberedUpTo(10);
    expected.at(3) = tests::numbered(20);
    expected.at(7) = tests::numbered(21);
    EXPECT_EQ(array.filter({}), expected);
    EXPECT_EQ(table.generation(), generation);
}

TEST_F(NamedStringArrayRows, AreFilteredByWhatTheirFirstElementContains) {
    const Entries entries{{"ab", "1"}, {"xaby", "2", "3"}, {"a", "ab"},
                          {"ab1"},     {"ba", "ab"},       {"", "ab"}};
    for (const Entry& entry : entries) {
        array.insert(entry);
    }
    EXPECT_EQ(array.filter({"ab"}), (Entries{{"ab", "1"}, {"xaby", "2", "3"}, {"ab1"}}));
    EXPECT_EQ(array.filter({"ab", "y"}), (Entries{{"xaby", "2", "3"}}));
    EXPECT_EQ(array.filter({"by", "xa", "ab"}), (Entries{{"xaby", "2", "3"}}));
    EXPECT_EQ(array.filter({"ab", "z"}), Entries());
    EXPECT_EQ(array.filter({""}), entries);
    EXPECT_EQ(array.filter({"", ""}), entries);
    EXPECT_EQ(array.filter({}), entries);
    EXPECT_EQ(array.filter({std::string("ab\0", 3)}), Entries());
}

TEST_F(NamedStringArrayRows, OfATableThatWasEmptiedAreNone) {
    array.insert("a");
    array.erase("a");
    EXPECT_EQ(table.dimensions(), Dimensions(0, 0));
    EXPECT_EQ(array.filter({}), Entries());
    array.insert("b");
    EXPECT_EQ(array.filter({}), Entries{{"b"}});
}

TEST_F(NamedStringArrayRows, OfAMissingTableAreNoneAndReadingMakesNothing) {
    EXPECT_EQ(array.filter({}), Entries());
    array.erase("a");
    EXPECT_EQ(table.dimensions(), Dimensions(0, 0));
    EXPECT_EQ(array.getTrustee(), "");
    EXPECT_EQ(tests::kernelSegments().size(), 0U);
}

TEST_F(NamedStringArrayRows, OutliveTheObjectsThatMadeThem) {
    table.array().insert("a");
    EXPECT_EQ(array.filter({}), Entries{{"a"}});
    EXPECT_EQ(tests::kernelSegments().size(), 2U);
}
