#include "endpointregistry/NamedStringArray.h"

#include "tests/endpointregistry/NamedStringArrayTools.h"

#include <cstddef>
#include <functional>
#include <gtest/gtest.h>
#include <stdexcept>
#include <string>

using namespace std::string_literals;
using tests::BaseContent;
using tests::Entries;

namespace {

constexpr std::size_t mebibyte = std::size_t{1} << 20U;
constexpr std::size_t maxRows = 1048576;
constexpr std::size_t largestContainer = 64 * mebibyte;
constexpr std::size_t overhead = 9;

/// Tables as large as they may be, and larger, with a container that bears them out.
class NamedStringArrayLimits : public tests::NamedStringArrayTest {
protected:
    void plant(std::size_t length, std::size_t width, std::size_t containerSize) {
        table.plantBase({.initializer = 1,
                         .flags = 1,
                         .width = {width, 0},
                         .length = {length, 0},
                         .generation = {5, 0}});
        table.plantContainer(5, tests::padded("unused..\1abc"s, containerSize));
    }

    void expectUsable() {
        EXPECT_EQ(array.filter({}), Entries{{"abc"}});
        array.insert("def");
        EXPECT_EQ(array.filter({}), (Entries{{"abc"}, {"def"}}));
        array.erase("abc");
        EXPECT_EQ(array.filter({}), Entries{{"def"}});
        table.remove();
    }

    void expectUnusable() {
        const BaseContent before = table.base();
        EXPECT_EQ(array.filter({}), Entries());
        EXPECT_NO_THROW(array.erase("abc"));
        EXPECT_THROW(array.insert("def"), std::runtime_error);
        EXPECT_EQ(table.base(), before);
        EXPECT_EQ(table.container(5).substr(8, 4), "\1abc"s);
    }

    /// Expects an insertion to be refused, and the table of one entry to stay what it is.
    void expectRefused(const std::function<void()>& insertion) {
        array.insert("a");
        const BaseContent before = table.base();
        const std::string content = table.container(table.generation());
        const auto segments = tests::kernelSegments();
        EXPECT_THROW(insertion(), std::runtime_error);
        EXPECT_EQ(table.base(), before);
        EXPECT_TRUE(table.container(table.generation()) == content);
        EXPECT_EQ(tests::kernelSegments(), segments);
        EXPECT_EQ(array.filter({}), Entries{{"a"}});
        array.insert("b");
        EXPECT_EQ(array.filter({}), (Entries{{"a"}, {"b"}}));
    }
};

} // namespace

TEST_F(NamedStringArrayLimits, AllowAsManyRowsAsThereMayBe) {
    plant(maxRows, 4, overhead + maxRows * 4);
    expectUsable();
}

TEST_F(NamedStringArrayLimits, AllowNoMoreRowsThanThat) {
    plant(maxRows + 1, 4, overhead + (maxRows + 1) * 4);
    expectUnusable();
}

TEST_F(NamedStringArrayLimits, AllowAContainerAsLargeAsItMayBe) {
    plant(1, largestContainer - overhead, largestContainer);
    expectUsable();
}

TEST_F(NamedStringArrayLimits, AllowNoLargerContainerThanThat) {
    plant(1, largestContainer - overhead + 1, largestContainer + 1);
    expectUnusable();
}

TEST_F(NamedStringArrayLimits, RefuseAnEntryThatWouldMakeTheContainerTooLarge) {
    // Ten rows of these would be 70 MiB.
    expectRefused([this] { array.insert(std::string(7 * mebibyte, 'x')); });
}

TEST_F(NamedStringArrayLimits, RefuseAnEntryThatWouldMakeTooManyRows) {
    expectRefused([this] {
        auto other = table.array();
        other.setLengthStep(maxRows + 1);
        other.insert("one more");
    });
}

TEST_F(NamedStringArrayLimits, LetTheLargestTableThatMayBeGrowNoFurther) {
    array.setLengthStep(1);
    array.setWidthStep(1);
    // The number of its elements and the zero byte behind its one are the other two.
    const std::string largest(largestContainer - overhead - 2, 'x');
    array.insert(largest);
    EXPECT_THROW(array.insert("b"), std::runtime_error);
    array.erase(largest);
    EXPECT_THROW(array.insert(largest + "x"), std::runtime_error);
    EXPECT_EQ(array.filter({}), Entries());
    array.insert("b");
    EXPECT_EQ(array.filter({}), Entries{{"b"}});
}
