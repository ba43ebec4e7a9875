#include "endpointregistry/NamedStringArray.h"

#include "tests/endpointregistry/LockedFileTools.h"
#include "tests/endpointregistry/NamedStringArrayTools.h"

#include <gtest/gtest.h>
#include <stdexcept>
#include <string>
#include <unistd.h>

using tests::BaseContent;
using tests::Dimensions;
using tests::Entries;
using tests::RawTable;

namespace {

class NamedStringArrayDeletion : public tests::NamedStringArrayTest {
protected:
    static bool hasLockFile() {
        const std::string path = tests::privateFolder("qvNamedStringArray") + "baseLock";
        return ::access(path.c_str(), F_OK) == 0;
    }
};

} // namespace

TEST_F(NamedStringArrayDeletion, RemovesTheSegmentsAndTheLockFile) {
    array.insert("a");
    ASSERT_TRUE(hasLockFile());
    table.remove();
    EXPECT_EQ(tests::kernelSegments().size(), 0U);
    EXPECT_FALSE(hasLockFile());
    EXPECT_EQ(array.filter({}), Entries());
    EXPECT_EQ(table.dimensions(), Dimensions(0, 0));
}

TEST_F(NamedStringArrayDeletion, LetsGenerationsStartAtOneAgain) {
    for (const char* const element : {"a", "bcdef", "ghijklmnopq"}) {
        array.insert(element);
    }
    ASSERT_EQ(table.generation(), 4U);
    table.remove();
    array.insert("a");
    EXPECT_EQ(table.generation(), 2U);
    EXPECT_EQ(array.filter({}), Entries{{"a"}});
}

TEST_F(NamedStringArrayDeletion, OfABaseThatIsNotInitialisedRemovesTheBase) {
    table.plantBase({});
    table.plantContainer(1, std::string(9, '\0'));
    table.remove();
    EXPECT_FALSE(table.hasBase());
    array.insert("a");
    EXPECT_EQ(array.filter({}), Entries{{"a"}});
}

TEST_F(NamedStringArrayDeletion, OfATableWhoseContainerIsMissingRemovesTheBase) {
    table.plantBase(
        {.initializer = 1, .flags = 1, .width = {8, 0}, .length = {10, 0}, .generation = {3, 0}});
    table.remove();
    EXPECT_EQ(tests::kernelSegments().size(), 0U);
}

TEST_F(NamedStringArrayDeletion, OfATableThatWasEmptiedRemovesItsContainer) {
    array.insert("a");
    array.erase("a");
    table.remove();
    EXPECT_EQ(tests::kernelSegments().size(), 0U);
}

TEST_F(NamedStringArrayDeletion, LeavesNoRowsToTheNextLifeInALeftover) {
    array.insert("a");
    BaseContent base = table.base();
    base.length.at(0) = 2;
    base.width.at(0) = 6;
    base.generation.at(0) = 3;
    table.setBase(base);
    table.plantContainer(
        3, tests::containerOf({std::string("\1old\0\0", 6), std::string("\1old\0\0", 6)}));
    table.remove();

    array.insert("b");
    EXPECT_EQ(array.filter({}), Entries{{"b"}});
    array.insert("wider than the first");
    EXPECT_EQ(table.generation(), 3U);
    EXPECT_EQ(array.filter({}), (Entries{{"b"}, {"wider than the first"}}));
    EXPECT_EQ(tests::kernelSegments().size(), 2U);
}

TEST_F(NamedStringArrayDeletion, LeavesTheOtherTablesOfTheTrustee) {
    const RawTable other(name + " other");
    const RawTable next(name, 1);
    array.insert("a");
    other.array().insert("b");
    next.array().insert("c");
    table.remove();
    EXPECT_EQ(other.array().filter({}), Entries{{"b"}});
    EXPECT_EQ(next.array().filter({}), Entries{{"c"}});
    other.array().insert("d");
    EXPECT_EQ(other.array().filter({}), (Entries{{"b"}, {"d"}}));
}

TEST_F(NamedStringArrayDeletion, TwiceRemovesNothingMore) {
    array.insert("a");
    table.remove();
    tests::expectMessages([&] { table.remove(); },
                          {{256, "NamedStringArray::deleteNamedStringArray(): Base shared memory "
                                 "could not be found."}});
}

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
