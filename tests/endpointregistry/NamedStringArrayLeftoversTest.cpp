#include "endpointregistry/NamedStringArray.h"

#include "tests/endpointregistry/NamedStringArrayTools.h"

#include <cstdint>
#include <gtest/gtest.h>
#include <string>
#include <vector>

using namespace std::string_literals;
using tests::BaseContent;
using tests::containerOf;
using tests::Entries;

namespace {

const std::vector<std::string> oldRows(40, "\1old one\0\0\0"s);

class NamedStringArrayLeftovers : public tests::NamedStringArrayTest {
protected:
    /// A table with one entry in generation 2 whose next resize was interrupted.
    void interrupt(std::uint64_t length, std::uint64_t width) {
        array.insert("current");
        BaseContent base = table.base();
        base.length.at(0) = length;
        base.width.at(0) = width;
        base.generation.at(0) = 3;
        table.setBase(base);
    }

    void clearByHand() {
        const auto lock = table.lock();
        auto base = table.findBase();
        auto container = table.findContainer(2);
        array.clearLeftoverContainer(base, container);
        EXPECT_TRUE(container.isAttached());
    }

    void expectCleared() {
        const BaseContent base = table.base();
        EXPECT_EQ(base.index, 1);
        EXPECT_EQ(base.generation.at(0), 0U);
        EXPECT_EQ(base.length.at(0), 0U);
        EXPECT_EQ(base.width.at(0), 0U);
        EXPECT_FALSE(table.hasContainer(3));
        EXPECT_TRUE(table.hasContainer(2));
        EXPECT_EQ(array.filter({}), Entries{{"current"}});
    }
};

} // namespace

TEST_F(NamedStringArrayLeftovers, AreRemovedWithTheirDescriptor) {
    interrupt(40, 11);
    table.plantContainer(3, containerOf(oldRows));
    clearByHand();
    expectCleared();
    EXPECT_EQ(tests::kernelSegments().size(), 2U);
}

TEST_F(NamedStringArrayLeftovers, WithoutRowsAreRemovedToo) {
    for (const auto& [length, width] : {std::pair{0, 0}, std::pair{0, 8}, std::pair{10, 0}}) {
        interrupt(static_cast<std::uint64_t>(length), static_cast<std::uint64_t>(width));
        table.plantContainer(3, std::string(9, '\0'));
        clearByHand();
        expectCleared();
        table.remove();
    }
}

TEST_F(NamedStringArrayLeftovers, OfAnotherSizeThanTheirDescriptorSaysAreRemovedToo) {
    for (const std::size_t size : {1U, 9U, 448U, 450U, 10'000U}) {
        interrupt(40, 11);
        table.plantContainer(3, std::string(size, '\1'));
        clearByHand();
        expectCleared();
        table.remove();
    }
}

TEST_F(NamedStringArrayLeftovers, ThatAreMissingLoseTheirDescriptor) {
    interrupt(40, 11);
    clearByHand();
    expectCleared();
}

TEST_F(NamedStringArrayLeftovers, OfHalfADescriptorLoseIt) {
    interrupt(40, 11);
    BaseContent base = table.base();
    base.generation.at(0) = 0;
    table.setBase(base);
    clearByHand();
    expectCleared();
}

TEST_F(NamedStringArrayLeftovers, OfAbsurdSizesAreRemoved) {
    for (const std::uint64_t length : {~0ULL, 1ULL << 62U}) {
        interrupt(length, ~0ULL);
        table.plantContainer(3, std::string(100, '\1'));
        clearByHand();
        expectCleared();
        table.remove();
    }
}

TEST_F(NamedStringArrayLeftovers, GoWithTheNextResize) {
    interrupt(40, 11);
    table.plantContainer(3, containerOf(oldRows));
    array.insert("one that is wider than all before");
    EXPECT_EQ(array.filter({}), (Entries{{"current"}, {"one that is wider than all before"}}));
    EXPECT_EQ(tests::kernelSegments().size(), 2U);
}

TEST_F(NamedStringArrayLeftovers, GoWithTheNextResizeByErasure) {
    interrupt(0, 0);
    table.plantContainer(3, containerOf(oldRows));
    array.erase("current");
    EXPECT_EQ(array.filter({}), Entries());
    EXPECT_EQ(tests::kernelSegments().size(), 2U);
}

TEST_F(NamedStringArrayLeftovers, OfTheNextGenerationLendNoRowsThoughNoDescriptorNamesThem) {
    for (const std::size_t size : {1U, 9U, 50U, 449U, 10'000U}) {
        array.insert("current");
        table.plantContainer(3, std::string(size, '\1'));
        array.insert("one that is wider than all before");
        EXPECT_EQ(array.filter({}), (Entries{{"current"}, {"one that is wider than all before"}}));
        array.erase("one that is wider than all before");
        EXPECT_EQ(array.filter({}), Entries{{"current"}});
        EXPECT_EQ(tests::kernelSegments().size(), 2U);
        table.remove();
    }
}

TEST_F(NamedStringArrayLeftovers, OfAnEarlierLifeLendNoRows) {
    for (const std::size_t size : {9U, 49U, 89U, 449U, 10'000U}) {
        for (const std::uint64_t generation : {1U, 2U, 3U, 4U}) {
            table.plantContainer(generation, std::string(size, '\1'));
        }
        array.insert("a");
        EXPECT_EQ(array.filter({}), Entries{{"a"}}) << size;
        array.insert("one that is wider than the first");
        EXPECT_EQ(array.filter({}).size(), 2U) << size;
        array.erase("one that is wider than the first");
        EXPECT_EQ(array.filter({}), Entries{{"a"}}) << size;
        EXPECT_EQ(table.generation(), 4U);
        table.remove();
        EXPECT_EQ(tests::kernelSegments().size(), 0U) << size;
    }
}

TEST_F(NamedStringArrayLeftovers, OfACrashInTheFirstInsertionLendNoRows) {
    // Killed after it claimed the base, when a container of an earlier life still stood there.
    table.plantBase({.initializer = 0x7fffffff, .generation = {1, 0}});
    table.plantContainer(1, std::string(9, '\1'));
    table.plantContainer(2, containerOf(oldRows));
    array.insert("a");
    EXPECT_EQ(array.filter({}), Entries{{"a"}});
    EXPECT_EQ(tests::kernelSegments().size(), 2U);
}
