#include "endpointregistry/NamedStringArray.h"

#include "tests/endpointregistry/NamedStringArrayTools.h"

#include <cstdint>
#include <gtest/gtest.h>
#include <limits>
#include <stdexcept>
#include <string>
#include <vector>

using namespace std::string_literals;
using tests::BaseContent;
using tests::containerOf;
using tests::Entries;

namespace {

constexpr std::uint64_t largest = std::numeric_limits<std::uint64_t>::max();
constexpr std::uint64_t mebibyte = 1U << 20U;

/// Tables that other members of the group may have written as they liked.
class NamedStringArrayHostile : public tests::NamedStringArrayTest {
protected:
    /// A table with one entry that is sound but for what the test changes.
    static BaseContent sound() {
        return {
            .initializer = 1, .flags = 1, .width = {8, 0}, .length = {10, 0}, .generation = {5, 0}};
    }

    void plant(const BaseContent& base) {
        table.plantBase(base);
        table.plantContainer(5, soundContainer);
    }

    /// Expects that nothing is read from the table or written to it.
    void expectUnusable(const BaseContent& base) {
        plant(base);
        EXPECT_EQ(array.filter({}), Entries());
        EXPECT_EQ(array.filter({"a"}), Entries());
        EXPECT_NO_THROW(array.erase("abcde"));
        EXPECT_THROW(array.insert("b"), std::runtime_error);
        EXPECT_NO_THROW(table.dimensions());
        EXPECT_EQ(array.getTrustee(), "");
        if (const auto container = table.findContainer(5); container.isAttached()) {
            EXPECT_EQ(table.container(5), soundContainer);
        }
        expectRecovery();
    }

    /// Expects that the table can be removed, and made again.
    void expectRecovery() {
        EXPECT_NO_THROW(table.remove());
        EXPECT_FALSE(table.hasBase());
        array.insert("new");
        EXPECT_EQ(array.filter({}), Entries{{"new"}});
        table.remove();
    }

    const std::string soundContainer = containerOf({"\1abcde\0\0"s, std::string(72, '\0')});
};

} // namespace

TEST_F(NamedStringArrayHostile, IsNoneThatIsSound) {
    plant(sound());
    EXPECT_EQ(array.filter({}), Entries{{"abcde"}});
    array.insert("fghij");
    EXPECT_EQ(array.filter({}), (Entries{{"abcde"}, {"fghij"}}));
    array.erase("abcde");
    EXPECT_EQ(array.filter({}), Entries{{"fghij"}});
}

TEST_F(NamedStringArrayHostile, NamesNoDescriptorOfTheTwo) {
    for (unsigned index = 2; index < 256; ++index) {
        BaseContent base = sound();
        base.index = static_cast<std::uint8_t>(index);
        expectUnusable(base);
    }
}

TEST_F(NamedStringArrayHostile, NamesNoDescriptorBeforeItIsInitialised) {
    table.plantBase({.index = 7});
    EXPECT_EQ(array.filter({}), Entries());
    EXPECT_NO_THROW(array.erase("a"));
    EXPECT_THROW(array.insert("a"), std::runtime_error);
    EXPECT_EQ(table.base().index, 7);
    expectRecovery();
}

TEST_F(NamedStringArrayHostile, HasNoGeneration) {
    BaseContent base = sound();
    base.generation = {0, 0};
    expectUnusable(base);
    base.generation = {0, 5};
    expectUnusable(base);
}

TEST_F(NamedStringArrayHostile, IsSaidToBeLargerThanItsContainer) {
    for (const std::uint64_t length : {11UL, 12UL, 1000UL, mebibyte}) {
        BaseContent base = sound();
        base.length.at(0) = length;
        expectUnusable(base);
        base.length.at(0) = 10;
        base.width.at(0) = length;
        expectUnusable(base);
    }
}

TEST_F(NamedStringArrayHostile, IsSaidToBeLargerThanNumbersAre) {
    const std::vector<std::uint64_t> absurd{largest, largest / 2 + 1, 1UL << 61U, 1UL << 60U,
                                            (1UL << 61U) + 10};
    for (const std::uint64_t number : absurd) {
        BaseContent base = sound();
        base.length.at(0) = number;
        expectUnusable(base);
        base = sound();
        base.width.at(0) = number;
        expectUnusable(base);
        base.length.at(0) = number;
        expectUnusable(base);
    }
}

TEST_F(NamedStringArrayHostile, HasAProductThatLooksSmall) {
    // Both products are 80 in 64 bits, as if the container were large enough.
    BaseContent base = sound();
    base.length.at(0) = (1UL << 61U) + 10;
    base.width.at(0) = 8;
    expectUnusable(base);
    base.length.at(0) = (1UL << 32U);
    base.width.at(0) = (1UL << 32U);
    expectUnusable(base);
    // The sum with the nine bytes around the rows is 0 and 1.
    base.width.at(0) = 1;
    base.length.at(0) = largest - 8;
    expectUnusable(base);
    base.length.at(0) = largest - 7;
    expectUnusable(base);
}

TEST_F(NamedStringArrayHostile, IsLargerThanAnyTableWillBe) {
    BaseContent base = sound();
    base.length.at(0) = 257;
    base.width.at(0) = mebibyte;
    expectUnusable(base);
    base.length.at(0) = 1UL << 40U;
    base.width.at(0) = 8;
    expectUnusable(base);
}

TEST_F(NamedStringArrayHostile, IsLargerThanAnyTableWillBeAndHasNoContainerYet) {
    BaseContent base = sound();
    base.generation.at(0) = 6;
    base.length.at(0) = 1UL << 40U;
    expectUnusable(base);
}

TEST_F(NamedStringArrayHostile, HasManyRowsOfNoBytes) {
    BaseContent base = sound();
    base.length.at(0) = largest;
    base.width.at(0) = 0;
    plant(base);
    EXPECT_EQ(array.filter({}), Entries());
    EXPECT_NO_THROW(array.erase("abcde"));
    expectRecovery();
}

TEST_F(NamedStringArrayHostile, HasNoRowsOfManyBytes) {
    BaseContent base = sound();
    base.length.at(0) = 0;
    base.width.at(0) = largest;
    plant(base);
    EXPECT_EQ(array.filter({}), Entries());
    EXPECT_NO_THROW(array.erase("abcde"));
    expectRecovery();
}

TEST_F(NamedStringArrayHostile, HasAContainerThatIsTooSmall) {
    for (const std::size_t size : {1U, 8U, 9U, 16U, 88U}) {
        table.plantBase(sound());
        table.plantContainer(5, std::string(size, '\1'));
        EXPECT_EQ(array.filter({}), Entries());
        tests::expectMessages(
            [&] { array.erase("a"); },
            {{256, "NamedStringArray::erase(): Container shared memory could not be found."}});
        EXPECT_THROW(array.insert("b"), std::runtime_error);
        EXPECT_EQ(table.container(5), std::string(size, '\1'));
        expectRecovery();
    }
}

TEST_F(NamedStringArrayHostile, HasABaseThatIsTooSmall) {
    const auto base = agent::spf::sharedmemory::SharedMemory::create(
        table.baseName(), 55, "",
        agent::spf::sharedmemory::SharedMemory::ImplementationSpecifications::SysV);
    ASSERT_TRUE(base.isAttached());
    EXPECT_EQ(array.filter({}), Entries());
    EXPECT_NO_THROW(array.erase("a"));
    EXPECT_THROW(array.insert("a"), std::runtime_error);
    EXPECT_EQ(table.dimensions(), tests::Dimensions(0, 0));
}

TEST_F(NamedStringArrayHostile, IsAtTheLastGeneration) {
    BaseContent base = sound();
    base.generation.at(0) = largest;
    table.plantBase(base);
    table.plantContainer(largest, soundContainer);
    EXPECT_THROW(array.insert("one that is wider than the rows"), std::runtime_error);
    const auto rows = array.filter({});
    EXPECT_TRUE(rows.empty() || rows == Entries{{"abcde"}});
    EXPECT_NO_THROW(array.erase("abcde"));
    EXPECT_EQ(array.filter({}), Entries());
    const BaseContent after = table.base();
    EXPECT_EQ(after.generation.at(after.index), largest);
    expectRecovery();
}

TEST_F(NamedStringArrayHostile, NamesTheCurrentContainerAsALeftover) {
    BaseContent base = sound();
    base.width.at(1) = 8;
    base.length.at(1) = 10;
    base.generation.at(1) = 5;
    plant(base);
    try {
        array.insert("one that is wider than the rows");
        EXPECT_EQ(array.filter({}), (Entries{{"abcde"}, {"one that is wider than the rows"}}));
    } catch (const std::runtime_error&) {
        EXPECT_EQ(table.container(5), soundContainer);
    }
    EXPECT_NO_THROW(array.erase("abcde"));
    EXPECT_NO_THROW(array.filter({}));
    expectRecovery();
}

TEST_F(NamedStringArrayHostile, NamesTheCurrentContainerAsALeftoverAndIsErasedFrom) {
    BaseContent base = sound();
    base.width.at(1) = 8;
    base.length.at(1) = 10;
    base.generation.at(1) = 5;
    plant(base);
    EXPECT_NO_THROW(array.erase("abcde"));
    EXPECT_NO_THROW(array.erase("abcde"));
    // Either the row is gone or the table counts as empty.
    EXPECT_EQ(array.filter({}), Entries());
    expectRecovery();
}

TEST_F(NamedStringArrayHostile, NamesALeftoverOfAnyOtherGeneration) {
    for (const std::uint64_t generation : {std::uint64_t{1}, std::uint64_t{4}, largest}) {
        BaseContent base = sound();
        base.width.at(1) = largest;
        base.length.at(1) = largest;
        base.generation.at(1) = generation;
        plant(base);
        array.insert("one that is wider than the rows");
        EXPECT_EQ(array.filter({}), (Entries{{"abcde"}, {"one that is wider than the rows"}}));
        expectRecovery();
    }
}
