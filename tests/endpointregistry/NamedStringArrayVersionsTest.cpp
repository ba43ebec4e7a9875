#include "endpointregistry/NamedStringArray.h"

#include "tests/endpointregistry/NamedStringArrayTools.h"

#include <gtest/gtest.h>
#include <stdexcept>
#include <string>

using tests::Dimensions;
using tests::Entries;
using tests::RawTable;

namespace {

/// Versions 1 and 12 of one name: the container of version 1 in generation 2 is called like the
/// base of version 12, and that in generation 25 like the container of 12 in generation 5.
class NamedStringArrayVersions : public tests::NamedStringArrayTest {
protected:
    /// Resizes a table up to this generation, in which it has one entry.
    static void advance(const RawTable& version, unsigned long generation,
                        const std::string& entry) {
        auto rows = version.array();
        for (bool isWide = false; !version.hasBase() || version.generation() < generation;
             isWide = !isWide) {
            for (const auto& row : rows.filter({})) {
                rows.erase(row);
            }
            if (!version.hasBase() || version.generation() < generation) {
                rows.insert(isWide ? entry + "x" : entry);
            }
        }
    }

    /// Leaves version 1 in generation 2 with its base alone, as when the container's owner logs out
    /// and the base is another user's.
    void loseContainer(unsigned long length, unsigned long width) const {
        one.plantBase({.initializer = 1,
                       .flags = 1,
                       .width = {width, 0},
                       .length = {length, 0},
                       .generation = {2, 0}});
    }

    void expectTwelveIsLeftAlone() const {
        const auto isLeftAlone = [this] {
            return twelve.hasBase() && twelve.array().filter({}) == Entries{{"of twelve"}};
        };
        ASSERT_TRUE(isLeftAlone());
        EXPECT_EQ(one.array().filter({}), Entries());
        EXPECT_NO_THROW(one.array().erase("of one"));
        EXPECT_TRUE(isLeftAlone()) << "after a look and an erasure";
        try {
            one.array().insert("of one");
        } catch (const std::runtime_error&) {
            // The name is taken.
            EXPECT_EQ(one.array().filter({}), Entries());
        }
        EXPECT_TRUE(isLeftAlone()) << "after an insertion";
        one.remove();
        EXPECT_TRUE(isLeftAlone()) << "after a deletion";
    }

    const RawTable one{name, 1};
    const RawTable twelve{name, 12};
};

} // namespace

TEST_F(NamedStringArrayVersions, DoNotMeetAsBaseAndContainer) {
    auto first = one.array();
    auto second = twelve.array();
    ASSERT_EQ(one.containerName(2), twelve.baseName());
    first.insert("of one");
    ASSERT_EQ(one.generation(), 2U);
    EXPECT_EQ(second.filter({}), Entries());
    EXPECT_EQ(twelve.dimensions(), Dimensions(0, 0));
    second.erase("of one");
    twelve.remove();
    // The name is taken for as long as the other table stays in this generation.
    EXPECT_THROW(second.insert("of twelve"), std::runtime_error);
    EXPECT_EQ(first.filter({}), Entries{{"of one"}});

    first.insert("a wider one of one");
    second.insert("of twelve");
    second.insert("a wider one of twelve");
    EXPECT_EQ(first.filter({}), (Entries{{"of one"}, {"a wider one of one"}}));
    EXPECT_EQ(second.filter({}), (Entries{{"of twelve"}, {"a wider one of twelve"}}));
}

TEST_F(NamedStringArrayVersions, DoNotMeetAsContainerAndBase) {
    auto first = one.array();
    auto second = twelve.array();
    second.insert("of twelve");
    first.insert("of one");
    EXPECT_EQ(first.filter({}), Entries{{"of one"}});
    EXPECT_EQ(second.filter({}), Entries{{"of twelve"}});
    first.insert("a wider one of one");
    EXPECT_EQ(second.filter({}), Entries{{"of twelve"}});
    second.insert("a wider one of twelve");
    EXPECT_EQ(first.filter({}), (Entries{{"of one"}, {"a wider one of one"}}));
    EXPECT_EQ(second.filter({}), (Entries{{"of twelve"}, {"a wider one of twelve"}}));
}

TEST_F(NamedStringArrayVersions, AreDeletedOneWithoutTheOther) {
    twelve.array().insert("of twelve");
    one.array().insert("of one");
    twelve.remove();
    EXPECT_EQ(one.array().filter({}), Entries{{"of one"}});
    one.array().insert("a wider one of one");
    twelve.array().insert("of twelve");
    one.remove();
    EXPECT_EQ(twelve.array().filter({}), Entries{{"of twelve"}});
    twelve.remove();
    EXPECT_EQ(tests::kernelSegments().size(), 0U);
}

TEST_F(NamedStringArrayVersions, DoNotMeetAsContainers) {
    ASSERT_EQ(one.containerName(25), twelve.containerName(5));
    advance(twelve, 5, "of twelve");
    advance(one, 24, "of one");
    const Entries twelves = twelve.array().filter({});
    Entries ones = one.array().filter({});
    auto first = one.array();
    first.insert("a wider one than all before, in generation twenty-five");
    ones.push_back({"a wider one than all before, in generation twenty-five"});
    EXPECT_EQ(first.filter({}), ones);
    EXPECT_EQ(twelve.array().filter({}), twelves);
    twelve.array().insert("a wider one than all before, in generation six");
    EXPECT_EQ(first.filter({}), ones);
    EXPECT_EQ(twelve.array().filter({}).size(), twelves.size() + 1);
}

TEST_F(NamedStringArrayVersions, DoNotTakeABaseForTheEmptyContainerThatTheyLost) {
    loseContainer(0, 0);
    twelve.array().insert("of twelve");
    expectTwelveIsLeftAlone();
}

TEST_F(NamedStringArrayVersions, DoNotTakeABaseForTheContainerThatTheyLost) {
    loseContainer(10, 4);
    twelve.array().insert("of twelve");
    expectTwelveIsLeftAlone();
}

TEST_F(NamedStringArrayVersions, WithoutAGenerationAreDeletedWithoutTheOther) {
    const RawTable ten(name, 10);
    ten.array().insert("of ten");
    ASSERT_EQ(one.containerName(0), ten.baseName());
    one.plantBase({.initializer = 1, .flags = 1});
    one.remove();
    ASSERT_TRUE(ten.hasBase());
    EXPECT_EQ(ten.array().filter({}), Entries{{"of ten"}});
}

namespace {

/// Versions 1 and 11: the container of version 1 in generation 1, which a fresh table begins with,
/// is called like the base of version 11.
class NamedStringArrayFreshVersions : public tests::NamedStringArrayTest {
protected:
    void SetUp() override { ASSERT_EQ(one.containerName(1), eleven.baseName()); }

    /// As an initialiser leaves it that was killed before the first container was made.
    void initialiseOne() const {
        one.plantBase({});
        auto base = one.findBase();
        ASSERT_TRUE(one.array().initializeBase(base));
    }

    /// As an initialiser leaves it that came before version 11 was there.
    void plantOne() const { one.plantBase({.initializer = 1, .flags = 1, .generation = {1, 0}}); }

    void expectElevenIsLeftAlone(const std::string& when) const {
        ASSERT_TRUE(eleven.hasBase()) << when;
        EXPECT_EQ(eleven.array().filter({}), Entries{{"of eleven"}}) << when;
    }

    const RawTable one{name, 1};
    const RawTable eleven{name, 11};
};

} // namespace

TEST_F(NamedStringArrayFreshVersions, BeginBesideTheOther) {
    eleven.array().insert("of eleven");
    one.array().insert("of one");
    expectElevenIsLeftAlone("after the first insertion");
    EXPECT_EQ(one.array().filter({}), Entries{{"of one"}});
    one.array().insert("a wider one of one");
    expectElevenIsLeftAlone("after a resize");
    one.remove();
    expectElevenIsLeftAlone("after a deletion");
}

TEST_F(NamedStringArrayFreshVersions, AreDeletedWithoutTheOther) {
    eleven.array().insert("of eleven");
    initialiseOne();
    one.remove();
    EXPECT_FALSE(one.hasBase());
    expectElevenIsLeftAlone("after a deletion");
}

TEST_F(NamedStringArrayFreshVersions, LeaveAloneTheOtherThatCameBeforeTheirFirstContainer) {
    plantOne();
    eleven.array().insert("of eleven");
    EXPECT_EQ(one.array().filter({}), Entries());
    one.array().erase("of one");
    expectElevenIsLeftAlone("after a look and an erasure");
    try {
        one.array().insert("of one");
        EXPECT_EQ(one.array().filter({}), Entries{{"of one"}});
    } catch (const std::runtime_error&) {
        // The name is taken.
        EXPECT_EQ(one.array().filter({}), Entries());
    }
    expectElevenIsLeftAlone("after the first insertion");
    one.remove();
    expectElevenIsLeftAlone("after a deletion");
}

TEST_F(NamedStringArrayFreshVersions, AreDeletedWithoutTheOtherThatCameBeforeTheirFirstContainer) {
    plantOne();
    eleven.array().insert("of eleven");
    one.remove();
    EXPECT_FALSE(one.hasBase());
    expectElevenIsLeftAlone("after a deletion");
}
