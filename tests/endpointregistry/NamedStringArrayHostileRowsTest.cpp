#include "endpointregistry/NamedStringArray.h"

#include "tests/endpointregistry/NamedStringArrayTools.h"

#include <cstddef>
#include <gtest/gtest.h>
#include <string>

using namespace std::string_literals;
using tests::Entries;
using tests::Entry;

namespace {

/// Rows that other members of the group may have written as they liked.
class NamedStringArrayHostileRows : public tests::NamedStringArrayTest {};

} // namespace

TEST_F(NamedStringArrayHostileRows, WithoutZeroBytesEndWithTheirBytes) {
    const std::string trap = "\2TRAP\0a\0"s;
    table.plant(5, 8,
                {"\1abcdefg"s, "\2abcdefg"s,
                 "\x7f"
                 "abcdefg"s,
                 "\xff"
                 "abcdefg"s,
                 trap});
    // No element runs on into the next row.
    EXPECT_EQ(array.filter({}),
              (Entries{{"abcdefg"}, {"abcdefg"}, {"abcdefg"}, {"abcdefg"}, {"TRAP", "a"}}));
    EXPECT_EQ(array.filter({"TRAP"}), (Entries{{"TRAP", "a"}}));
    array.erase(Entry{"abcdefg", "TRAP"});
    array.erase(Entry{"abcdefg\2TRAP"});
    array.erase(Entry{"abcdefgh"});
    EXPECT_EQ(array.filter({}).size(), 5U);
}

TEST_F(NamedStringArrayHostileRows, AtTheContainersEndEndWithTheirBytesToo) {
    table.plant(5, 8, {"\1abcdefg"s});
    std::string content = table.container(5);
    content.back() = 'X';
    table.plantContainer(5, content);
    EXPECT_EQ(array.filter({}), Entries{{"abcdefg"}});
    array.erase("abcdefgX");
    EXPECT_EQ(array.filter({}), Entries{{"abcdefg"}});
}

TEST_F(NamedStringArrayHostileRows, ThatCountMoreElementsThanTheyHoldHaveFewer) {
    table.plant(5, 8,
                {"\3ab\0c\0\0X"s,
                 "\x7f"
                 "a\0\0\0\0\0\0"s,
                 "\5a\0b\0c\0d"s});
    EXPECT_EQ(array.filter({}),
              (Entries{{"ab", "c", ""}, {"a", "", "", "", "", ""}, {"a", "b", "c", "d"}}));
    array.erase(Entry{"a", "b", "c", "d"});
    array.erase(Entry{"a", "b", "c", "d", ""});
    EXPECT_EQ(array.filter({"ab"}), (Entries{{"ab", "c", ""}}));
}

TEST_F(NamedStringArrayHostileRows, ThatCountMoreElementsThanTheyHoldAreErasedAsTheyAreRead) {
    table.plant(5, 8,
                {"\3ab\0c\0\0X"s,
                 "\x7f"
                 "a\0\0\0\0\0\0"s,
                 "\5a\0b\0c\0d"s,
                 "\x64"
                 "abcdefg"s,
                 "\1abc\0\0\0\0"s});
    for (Entries left = array.filter({}); !left.empty(); left = array.filter({})) {
        const std::size_t before = left.size();
        array.erase(left.back());
        ASSERT_EQ(array.filter({}).size(), before - 1);
    }
    EXPECT_EQ(table.dimensions(), tests::Dimensions(0, 0));
}

TEST_F(NamedStringArrayHostileRows, OfOneByteHoldNothing) {
    table.plant(5, 1, {"\1"s, "\x7f"s, "\0"s, "\xff"s});
    EXPECT_NO_THROW(array.filter({}));
    EXPECT_NO_THROW(array.filter({"a"}));
    EXPECT_NO_THROW(array.erase("a"));
    EXPECT_NO_THROW(array.erase(""));
    array.insert("a");
    EXPECT_EQ(array.filter({"a"}), Entries{{"a"}});
}

TEST_F(NamedStringArrayHostileRows, WithoutZeroBytesAreCopied) {
    table.plant(5, 8,
                {"\1abcdefg"s, "\x7f"
                               "hijklmn"s});
    array.insert("a row that needs a wider table");
    const auto rows = array.filter({});
    ASSERT_EQ(rows.size(), 3U);
    // Where the copies are wider, zero bytes follow.
    EXPECT_EQ(rows.at(0), Entry{"abcdefg"});
    EXPECT_EQ(rows.at(1).at(0), "hijklmn");
    EXPECT_EQ(rows.at(2), Entry{"a row that needs a wider table"});
}
