#include "endpointregistry/NamedStringArray.h"

#include "tests/endpointregistry/LoggersReportedFailure.h"
#include "tests/endpointregistry/NamedStringArrayTools.h"

#include <gtest/gtest.h>
#include <stdexcept>
#include <string>

using tests::Entries;
using tests::Entry;
using tests::expectMessages;
using tests::expectReported;

namespace {

const std::string empty = "NamedStringArray new entry cannot be empty";
const std::string emptyLogged = "NamedStringArray::insert(): The new entry cannot be empty.";
const std::string tooMany = "NamedStringArray new entry cannot have more than 127 elements";
const std::string tooManyLogged =
    "NamedStringArray::insert(): The new entry cannot have more than 127 elements.";
const std::string zeroBytes = "NamedStringArray new entry cannot contain zero bytes";
const std::string zeroBytesLogged =
    "NamedStringArray::insert(): The new entry cannot contain zero bytes.";
const std::string noBase = "NamedStringArray::erase(): Base shared memory could not be found.";
const std::string noContainer =
    "NamedStringArray::erase(): Container shared memory could not be found.";
const std::string noEntry = "NamedStringArray::erase(): Entry could not be found.";

class NamedStringArrayErrors : public tests::NamedStringArrayTest {
protected:
    void expectRefused(const Entry& entry, const std::string& text, const std::string& message) {
        expectReported<std::invalid_argument>([&] { array.insert(entry); }, text, message);
        EXPECT_EQ(tests::kernelSegments().size(), 0U);
    }
};

} // namespace

TEST_F(NamedStringArrayErrors, RefuseEntriesOfMoreThan127Elements) {
    expectRefused(Entry(128, "a"), tooMany, tooManyLogged);
    expectRefused(Entry(1000, "a"), tooMany, tooManyLogged);
}

TEST_F(NamedStringArrayErrors, NameTheNumberOfElementsFirst) {
    expectRefused(Entry(128), tooMany, tooManyLogged);
    expectRefused(Entry(128, std::string(1, '\0')), tooMany, tooManyLogged);
}

TEST_F(NamedStringArrayErrors, RefuseEmptyEntries) {
    expectRefused({}, empty, emptyLogged);
    expectRefused({""}, empty, emptyLogged);
    expectRefused({"", ""}, empty, emptyLogged);
    expectRefused(Entry(127), empty, emptyLogged);
    expectReported<std::invalid_argument>([&] { array.insert(""); }, empty, emptyLogged);
    EXPECT_EQ(tests::kernelSegments().size(), 0U);
}

TEST_F(NamedStringArrayErrors, RefuseZeroBytesInElements) {
    expectRefused({std::string("a\0b", 3)}, zeroBytes, zeroBytesLogged);
    expectRefused({"a", std::string("b\0", 2)}, zeroBytes, zeroBytesLogged);
    expectRefused({std::string(1, '\0')}, zeroBytes, zeroBytesLogged);
    expectRefused({"", "a", std::string("\0b", 2)}, zeroBytes, zeroBytesLogged);
}

TEST_F(NamedStringArrayErrors, LeaveTheTableThatThereIsAsItWas) {
    array.insert("a");
    const auto base = table.base();
    for (const Entry& refused : Entries{{}, {""}, Entry(128, "a"), {std::string("a\0b", 3)}}) {
        EXPECT_THROW(array.insert(refused), std::invalid_argument);
    }
    EXPECT_EQ(table.base(), base);
    EXPECT_EQ(array.filter({}), Entries{{"a"}});
}

TEST_F(NamedStringArrayErrors, AreThrownAlsoWhenNothingIsLogged) {
    const tests::LogCapture log(tests::registryChannel + "=none");
    EXPECT_THROW(array.insert(Entry(128, "a")), std::invalid_argument);
    EXPECT_THROW(array.insert(""), std::invalid_argument);
    EXPECT_THROW(array.insert(std::string("a\0b", 3)), std::invalid_argument);
    array.erase("a");
    EXPECT_EQ(log.records().size(), 0U);
}

TEST_F(NamedStringArrayErrors, AreLoggedForErasureFromAMissingTable) {
    expectMessages([&] { array.erase("a"); }, {{256, noBase}});
    expectMessages([&] { array.erase(Entry{}); }, {{256, noBase}});
    EXPECT_EQ(tests::kernelSegments().size(), 0U);
}

TEST_F(NamedStringArrayErrors, AreNotLoggedForErasureFromATableThatIsNotInitialised) {
    table.plantBase({.initializer = 1, .width = {8, 0}, .length = {10, 0}, .generation = {1, 0}});
    expectMessages([&] { array.erase("a"); }, {});
    EXPECT_EQ(tests::kernelSegments().size(), 1U);
}

TEST_F(NamedStringArrayErrors, AreLoggedForErasureFromAMissingContainer) {
    table.plantBase(
        {.initializer = 1, .flags = 1, .width = {8, 0}, .length = {10, 0}, .generation = {3, 0}});
    expectMessages([&] { array.erase("a"); }, {{256, noContainer}});
    EXPECT_EQ(tests::kernelSegments().size(), 1U);
}

TEST_F(NamedStringArrayErrors, AreLoggedForErasureOfAMissingEntry) {
    array.insert(Entry{"a", "b", "c"});
    const auto base = table.base();
    expectMessages([&] { array.erase(Entry{"a", "b"}); }, {{256, noEntry}});
    expectMessages([&] { array.erase("a"); }, {{256, noEntry}});
    EXPECT_EQ(table.base(), base);
    array.erase(Entry{"a", "b", "c"});
    expectMessages([&] { array.erase(Entry{"a", "b", "c"}); }, {{256, noEntry}});
}

TEST_F(NamedStringArrayErrors, AreNoneForAllThatGoesWell) {
    expectMessages(
        [&] {
            EXPECT_EQ(array.filter({}), Entries());
            EXPECT_EQ(table.dimensions(), tests::Dimensions(0, 0));
            EXPECT_EQ(array.getTrustee(), "");
            array.insert("a");
            array.erase("a");
            EXPECT_EQ(array.filter({}), Entries());
            table.remove();
        },
        {});
}

TEST_F(NamedStringArrayErrors, AreNoneForReadingWhatIsNotThere) {
    table.plantBase({});
    expectMessages(
        [&] {
            EXPECT_EQ(array.filter({}), Entries());
            EXPECT_EQ(table.dimensions(), tests::Dimensions(0, 0));
        },
        {});
    table.plantBase(
        {.initializer = 1, .flags = 1, .width = {8, 0}, .length = {10, 0}, .generation = {3, 0}});
    expectMessages([&] { EXPECT_EQ(array.filter({}), Entries()); }, {});
    EXPECT_EQ(tests::kernelSegments().size(), 1U);
}

TEST_F(NamedStringArrayErrors, AreNoneForInsertionWhereTheContainerIsMissing) {
    table.plantBase(
        {.initializer = 1, .flags = 1, .width = {8, 0}, .length = {10, 0}, .generation = {3, 0}});
    expectMessages([&] { array.insert("abcdef"); }, {});
    EXPECT_EQ(array.filter({}), Entries{{"abcdef"}});
    EXPECT_EQ(table.generation(), 3U);
}

TEST_F(NamedStringArrayErrors, AreLoggedForTheRemovalOfAMissingTable) {
    expectMessages([&] { table.remove(); },
                   {{256, "NamedStringArray::deleteNamedStringArray(): Base shared memory could "
                          "not be found."}});
}
