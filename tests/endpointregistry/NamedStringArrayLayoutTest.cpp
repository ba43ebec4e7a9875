#include "endpointregistry/NamedStringArray.h"

#include "tests/endpointregistry/NamedStringArrayTools.h"

#include <cstdint>
#include <gtest/gtest.h>
#include <string>
#include <unistd.h>
#include <vector>

using namespace std::string_literals;
using tests::BaseContent;
using tests::containerOf;
using tests::Dimensions;
using tests::Entries;
using tests::Entry;
using tests::padded;

namespace {

class NamedStringArrayLayout : public tests::NamedStringArrayTest {
protected:
    std::string bytesOfBase() const {
        const auto base = table.findBase();
        return {static_cast<const char*>(base.getPointer()), 56};
    }
};

std::string inBytes(std::uint64_t number, std::size_t count) {
    std::string bytes;
    for (std::size_t i = 0; i < count; ++i) {
        bytes += static_cast<char>(number >> (8 * i) & 0xffU);
    }
    return bytes;
}

} // namespace

TEST_F(NamedStringArrayLayout, OfTheBaseAfterTheFirstInsertionIsKnownToTheByte) {
    array.insert(Entry{"ab", "c"});

    EXPECT_EQ(table.findBase().getSize(), 56U);
    // Generation 2 follows generation 1, which was no row long, in the other descriptor.
    EXPECT_EQ(bytesOfBase(), inBytes(static_cast<std::uint64_t>(::getpid()), 4) + "\1"s + "\1"s +
                                 "\0\0"s + inBytes(0, 8) + inBytes(8, 8) + inBytes(0, 8) +
                                 inBytes(10, 8) + inBytes(0, 8) + inBytes(2, 8));
}

TEST_F(NamedStringArrayLayout, OfTheContainerAfterTheFirstInsertionIsKnownToTheByte) {
    array.insert(Entry{"ab", "c"});

    EXPECT_EQ(table.findContainer(2).getSize(), 89U);
    EXPECT_EQ(table.container(2), padded("\0\0\0\0\0\0\0\0\2ab\0c\0"s, 89));
    EXPECT_FALSE(table.hasContainer(1));
    EXPECT_EQ(tests::kernelSegments().size(), 2U);
    EXPECT_EQ(table.dimensions(), Dimensions(10, 8));
}

TEST_F(NamedStringArrayLayout, OfAnEntryOfOneLetterTakesThreeBytes) {
    array.insert("a");
    EXPECT_EQ(table.dimensions(), Dimensions(10, 4));
    EXPECT_EQ(table.container(2), padded("\0\0\0\0\0\0\0\0\1a\0"s, 49));
}

TEST_F(NamedStringArrayLayout, OfAnEmptyElementIsALoneZeroByte) {
    array.insert(Entry{"", "x"});
    EXPECT_EQ(table.rows().at(0), "\2\0x\0"s);
}

TEST_F(NamedStringArrayLayout, OfRowsIsOneBehindTheOther) {
    array.insert("abc");
    array.insert(Entry{"d", "e"});
    array.insert("f");
    EXPECT_EQ(table.container(2).substr(0, 8 + 24 + 8),
              padded("\0\0\0\0\0\0\0\0\1abc\0\0\0\0\2d\0e\0\0\0\0\1f\0"s, 40));
}

TEST_F(NamedStringArrayLayout, OfAFreedRowKeepsAllButTheCount) {
    array.insert("abc");
    array.insert("def");
    array.erase("abc");
    EXPECT_EQ(table.rows().at(0), "\0abc\0\0\0\0"s);
    EXPECT_EQ(table.rows().at(1), "\1def\0\0\0\0"s);
}

TEST_F(NamedStringArrayLayout, OfAReusedRowKeepsWhatTheEntryDoesNotTake) {
    array.insert("abcdef");
    array.insert("ghijkl");
    array.erase("abcdef");
    array.insert("x");
    EXPECT_EQ(table.rows().at(0), "\1x\0cdef\0"s);
}

TEST_F(NamedStringArrayLayout, OfAnEmptiedTableIsNineBytesInTheNextGeneration) {
    array.insert("a");
    array.erase("a");
    const BaseContent expected{.initializer = static_cast<std::uint32_t>(::getpid()),
                               .flags = 1,
                               .index = 0,
                               .generation = {3, 0}};
    EXPECT_EQ(table.base(), expected);
    EXPECT_EQ(table.container(3), std::string(9, '\0'));
    EXPECT_EQ(tests::kernelSegments().size(), 2U);
}

TEST_F(NamedStringArrayLayout, OfUnusedBytesIsLeftAlone) {
    table.plantBase({.initializer = 7,
                     .flags = 1,
                     .index = 1,
                     .reserved = 0xabcd,
                     .width = {0, 8},
                     .length = {0, 10},
                     .generation = {0, 5}});
    std::string content = padded("reserved\1a\0"s, 89);
    content.back() = 'T';
    table.plantContainer(5, content);

    array.insert("bcdef");
    array.erase("a");
    content.replace(8, 1, "\0"s);
    content.replace(16, 7, "\1bcdef\0"s);
    EXPECT_EQ(table.container(5), content);
    EXPECT_EQ(table.base().reserved, 0xabcdU);
    EXPECT_EQ(table.base().initializer, 7U);
}

TEST_F(NamedStringArrayLayout, OfAPlantedTableIsRead) {
    for (const std::uint8_t index : {std::uint8_t{0}, std::uint8_t{1}}) {
        BaseContent base{.initializer = 1, .flags = 1, .index = index};
        base.width.at(index) = 8;
        base.length.at(index) = 3;
        base.generation.at(index) = 40U + index;
        table.plantBase(base);
        table.plantContainer(40U + index,
                             containerOf({"\2ab\0c\0XX"s, "\0old\0\0\0\0"s, "\1defghi\0"s}));
        EXPECT_EQ(array.filter({}), (Entries{{"ab", "c"}, {"defghi"}}));
        EXPECT_EQ(table.dimensions(), Dimensions(3, 8));
    }
}

TEST_F(NamedStringArrayLayout, OfAPlantedTableIsErasedFrom) {
    table.plant(6, 8, std::vector<std::string>(10, "\2ab\0c\0XX"s));
    array.erase(Entry{"ab", "c"});
    EXPECT_EQ(table.rows().at(0), "\0ab\0c\0XX"s);
    EXPECT_EQ(table.rows().at(1), "\2ab\0c\0XX"s);
    EXPECT_EQ(table.generation(), 6U);
}

TEST_F(NamedStringArrayLayout, OfAPlantedTableIsInsertedInto) {
    std::vector<std::string> rows(9, "\1abcde\0X"s);
    rows.insert(rows.begin() + 4, "\0stale!!"s);
    table.plant(6, 8, rows);
    array.insert(Entry{"f", "g"});
    EXPECT_EQ(table.rows().at(4), "\2f\0g\0e!!"s);
    EXPECT_EQ(table.generation(), 6U);
}

TEST_F(NamedStringArrayLayout, OfOtherFlagsIsNoMatter) {
    table.plant(6, 8, {"\1abcde\0X"s});
    BaseContent base = table.base();
    base.flags = 0xff;
    table.setBase(base);
    EXPECT_EQ(array.filter({}), Entries{{"abcde"}});
    base.flags = 0xfe;
    table.setBase(base);
    EXPECT_EQ(array.filter({}), Entries());
    EXPECT_EQ(table.dimensions(), Dimensions(0, 0));
}

TEST_F(NamedStringArrayLayout, OfACountAbove127IsAnEntryOfOneElement) {
    for (const char* const count : {"\x80", "\xc8", "\xff"}) {
        table.plant(6, 8, {count + "ab\0c\0\0\0"s});
        EXPECT_EQ(array.filter({}), Entries{{"ab"}});
        tests::expectMessages(
            [&] {
                array.erase(Entry{"ab", "c"});
            },
            {{256, "NamedStringArray::erase(): Entry could not be found."}});
        array.erase("ab");
        EXPECT_EQ(array.filter({}), Entries());
        table.remove();
    }
}

TEST_F(NamedStringArrayLayout, OfACountAbove127SurvivesAResize) {
    table.plant(6, 8,
                {"\xc8"
                 "ab\0c\0\0\0"s});
    array.insert("longer than that");
    // The first of its elements is the only one that counts, so it alone is certain to stay.
    EXPECT_EQ(table.rows().at(0).substr(0, 4), "\xc8"
                                               "ab\0"s);
    EXPECT_EQ(array.filter({}), (Entries{{"ab"}, {"longer than that"}}));
}
