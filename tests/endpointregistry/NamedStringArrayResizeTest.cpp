#include "endpointregistry/NamedStringArray.h"

#include "tests/endpointregistry/NamedStringArrayTools.h"

#include <gtest/gtest.h>
#include <limits>
#include <stdexcept>
#include <string>
#include <vector>

using namespace std::string_literals;
using tests::Dimensions;
using tests::Entries;
using tests::Entry;
using tests::padded;

namespace {

class NamedStringArrayResize : public tests::NamedStringArrayTest {
protected:
    void fill(unsigned count) {
        for (unsigned number = 0; number < count; ++number) {
            array.insert(tests::numbered(number));
        }
    }
};

} // namespace

TEST_F(NamedStringArrayResize, GivesTheEleventhRowTwentyRows) {
    fill(10);
    EXPECT_EQ(table.dimensions().first, 10U);
    EXPECT_EQ(table.generation(), 2U);
    array.insert(tests::numbered(10));
    EXPECT_EQ(table.dimensions().first, 20U);
    EXPECT_EQ(table.generation(), 3U);
    EXPECT_EQ(array.filter({}), tests::numberedUpTo(11));
    EXPECT_EQ(tests::kernelSegments().size(), 2U);
}

TEST_F(NamedStringArrayResize, GivesThirteenBytesSixteen) {
    array.insert("abcdef");
    ASSERT_EQ(table.dimensions(), Dimensions(10, 8));
    array.insert("ghijklmnopq");
    EXPECT_EQ(table.dimensions(), Dimensions(10, 16));
    EXPECT_EQ(table.rows().at(0), padded("\1abcdef\0"s, 16));
    EXPECT_EQ(table.rows().at(1), padded("\1ghijklmnopq\0"s, 16));
}

TEST_F(NamedStringArrayResize, PacksRowsInOrderAndCopiesOfEachWhatTheWidestTakes) {
    // The widest takes six bytes, so each keeps two of its stale ones where it takes four.
    table.plant(7, 12,
                {"\1ab\0XXXXXXXX"s, "\0stale\0stale"s, "\1abcd\0YYYYYY"s, "\0\0\0\0........"s});
    array.insert("a longer one than before");
    EXPECT_EQ(table.dimensions(), Dimensions(10, 28));
    EXPECT_EQ(table.generation(), 8U);
    const auto rows = table.rows();
    EXPECT_EQ(rows.at(0), padded("\1ab\0XX"s, 28));
    EXPECT_EQ(rows.at(1), padded("\1abcd\0"s, 28));
    EXPECT_EQ(rows.at(2), padded("\1a longer one than before"s, 28));
    EXPECT_EQ(rows.at(3), std::string(28, '\0'));
    EXPECT_FALSE(table.hasContainer(7));
}

TEST_F(NamedStringArrayResize, ZeroesTheDescriptorThatItLeaves) {
    table.plant(7, 12, {"\1ab\0XXXXXXXX"s});
    array.insert("c");
    const tests::BaseContent expected{.initializer = 1,
                                      .flags = 1,
                                      .index = 1,
                                      .width = {0, 4},
                                      .length = {0, 10},
                                      .generation = {0, 8}};
    EXPECT_EQ(table.base(), expected);
    array.insert("longer");
    const tests::BaseContent next{.initializer = 1,
                                  .flags = 1,
                                  .index = 0,
                                  .width = {8, 0},
                                  .length = {10, 0},
                                  .generation = {9, 0}};
    EXPECT_EQ(table.base(), next);
}

TEST_F(NamedStringArrayResize, ShrinksTheTableByWholeSteps) {
    fill(21);
    ASSERT_EQ(table.dimensions().first, 30U);
    array.erase(tests::numbered(0));
    EXPECT_EQ(table.dimensions().first, 20U);
    for (unsigned number = 1; number < 11; ++number) {
        array.erase(tests::numbered(number));
        EXPECT_EQ(table.dimensions().first, number < 10 ? 20U : 10U);
    }
    EXPECT_EQ(array.filter({}).size(), 10U);
    EXPECT_EQ(array.filter({}).front(), tests::numbered(11));
    EXPECT_EQ(tests::kernelSegments().size(), 2U);
}

TEST_F(NamedStringArrayResize, ShrinksTheWidthWhenTheWidestRowGoes) {
    array.insert("a");
    array.insert("a much wider one");
    ASSERT_EQ(table.dimensions(), Dimensions(10, 20));
    array.erase("a much wider one");
    EXPECT_EQ(table.dimensions(), Dimensions(10, 4));
    EXPECT_EQ(array.filter({}), Entries{{"a"}});
}

TEST_F(NamedStringArrayResize, ShrinksToNothingWithTheLastRow) {
    array.insert("a");
    array.erase("a");
    EXPECT_EQ(table.dimensions(), Dimensions(0, 0));
    EXPECT_EQ(table.generation(), 3U);
    EXPECT_TRUE(table.hasContainer(3));
    EXPECT_FALSE(table.hasContainer(2));
}

TEST_F(NamedStringArrayResize, FollowsTheStepsOfTheObject) {
    array.setLengthStep(3);
    array.setWidthStep(7);
    for (const char* const element : {"a", "b", "c"}) {
        array.insert(element);
        EXPECT_EQ(table.dimensions(), Dimensions(3, 7));
    }
    array.insert("abcdef");
    EXPECT_EQ(table.dimensions(), Dimensions(6, 14));
    array.setLengthStep(1);
    array.setWidthStep(1);
    array.insert("x");
    EXPECT_EQ(table.dimensions(), Dimensions(5, 8));
    // Of another object, which knows only its own.
    table.array().insert("y");
    EXPECT_EQ(table.dimensions(), Dimensions(10, 8));
    EXPECT_EQ(array.filter({}).size(), 6U);
}

TEST_F(NamedStringArrayResize, WithALengthStepOfZeroMakesNoRows) {
    array.setLengthStep(0);
    EXPECT_NO_THROW(array.insert(Entry{"ab", "c"}));
    EXPECT_EQ(table.dimensions(), Dimensions(0, 8));
    EXPECT_EQ(table.container(table.generation()), std::string(9, '\0'));
    EXPECT_EQ(array.filter({}), Entries());
    EXPECT_NO_THROW(array.erase(Entry{"ab", "c"}));
    table.array().insert("a");
    EXPECT_EQ(table.array().filter({}), Entries{{"a"}});
}

TEST_F(NamedStringArrayResize, WithAWidthStepOfZeroMakesRowsOfNoBytes) {
    array.setWidthStep(0);
    EXPECT_NO_THROW(array.insert(Entry{"ab", "c"}));
    EXPECT_EQ(table.dimensions(), Dimensions(10, 0));
    EXPECT_EQ(table.container(table.generation()), std::string(9, '\0'));
    EXPECT_EQ(array.filter({}), Entries());
    EXPECT_NO_THROW(array.erase(Entry{"ab", "c"}));
    table.array().insert("a");
    EXPECT_EQ(table.array().filter({}), Entries{{"a"}});
}

TEST_F(NamedStringArrayResize, WithStepsOfZeroWritesNothingOutsideTheContainer) {
    for (const bool isLength : {true, false}) {
        fill(15);
        if (isLength) {
            array.setLengthStep(0);
        } else {
            array.setWidthStep(0);
        }
        EXPECT_NO_THROW(array.insert("a"));
        EXPECT_EQ(table.container(table.generation()), std::string(9, '\0'));
        EXPECT_EQ(array.filter({}), Entries());
        array = table.array();
    }
    array.insert("b");
    array.setLengthStep(0);
    array.setWidthStep(0);
    EXPECT_NO_THROW(array.erase("b"));
    EXPECT_EQ(table.dimensions(), Dimensions(0, 0));
}

TEST_F(NamedStringArrayResize, WithTheLargestStepsIsRefusedAndLeavesTheTable) {
    constexpr unsigned long largest = std::numeric_limits<unsigned long>::max();
    fill(11);
    for (const unsigned long step : {largest, largest / 2, largest / 16 + 1, 1UL << 40}) {
        array.setLengthStep(step);
        EXPECT_THROW(array.insert("a"), std::runtime_error) << step;
        EXPECT_EQ(table.array().filter({}), tests::numberedUpTo(11)) << step;
    }
    array = table.array();
    array.setWidthStep(1UL << 40);
    EXPECT_THROW(array.insert("a"), std::runtime_error);
    EXPECT_EQ(table.array().filter({}), tests::numberedUpTo(11));

    table.array().insert("b");
    EXPECT_EQ(table.array().filter({"b"}), Entries{{"b"}});
    EXPECT_EQ(tests::kernelSegments().size(), 2U);
}

TEST_F(NamedStringArrayResize, ByHandLeavesTheContainerThatIsCurrent) {
    fill(2);
    const auto lock = table.lock();
    auto base = table.findBase();
    auto container = table.findContainer(2);
    array.resizeContainer(base, container, 40);
    EXPECT_EQ(table.generation(), 3U);
    ASSERT_TRUE(container.isAttached());
    EXPECT_EQ(container.getSize(), 9U + 10 * 40);
    EXPECT_TRUE(container.isStillNamed());
    EXPECT_FALSE(table.hasContainer(2));
    EXPECT_EQ(static_cast<const char*>(container.getPointer())[8], 2);
}

TEST_F(NamedStringArrayResize, ByHandChangesNothingThatFits) {
    fill(2);
    const auto before = table.base();
    const auto lock = table.lock();
    auto base = table.findBase();
    auto container = table.findContainer(2);
    array.resizeContainer(base, container, 1);
    array.resizeContainer(base, container, 0);
    EXPECT_EQ(table.base(), before);
    EXPECT_EQ(container.getSize(), 9 + before.length.at(1) * before.width.at(1));
}

TEST_F(NamedStringArrayResize, ByHandWithoutARowMoreMayDropAllRows) {
    table.plant(4, 8, std::vector<std::string>(10, "\0stale\0\0"s));
    {
        const auto lock = table.lock();
        auto base = table.findBase();
        auto container = table.findContainer(4);
        array.resizeContainer(base, container, 0);
        EXPECT_EQ(container.getSize(), 9U);
    }
    EXPECT_EQ(table.dimensions(), Dimensions(0, 0));
    EXPECT_EQ(table.generation(), 5U);
}
