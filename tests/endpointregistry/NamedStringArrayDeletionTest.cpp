#include "endpointregistry/NamedStringArray.h"

#include "tests/endpointregistry/LockedFileTools.h"
#include "tests/endpointregistry/NamedStringArrayTools.h"

#include <gtest/gtest.h>
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
