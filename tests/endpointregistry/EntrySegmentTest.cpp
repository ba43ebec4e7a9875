#include "endpointregistry/detail/EntrySegment.h"

#include <cstdint>
#include <cstring>
#include <gtest/gtest.h>
#include <limits>
#include <stdexcept>
#include <string>
#include <utility>

namespace entrysegment = agent::spf::endpointregistry::entrysegment;
using namespace std::string_literals;

namespace {

using DataPair = std::pair<std::string, std::string>;

constexpr auto longest = std::numeric_limits<unsigned long>::max();

std::string numberBytes(std::uint64_t number) {
    std::string bytes(sizeof number, '\0');
    std::memcpy(bytes.data(), &number, sizeof number);
    return bytes;
}

/// A segment of these fields, its reserved bytes zero.
std::string segment(char ready, std::uint64_t firstLength, const std::string& data) {
    return std::string(1, ready) + std::string(7, '\0') + numberBytes(firstLength) + data + '\0';
}

} // namespace

TEST(EntrySegment, TakesSeventeenBytesMoreThanTheData) {
    EXPECT_EQ(entrysegment::sizeFor(0), 17U);
    EXPECT_EQ(entrysegment::sizeFor(3), 20U);
    EXPECT_EQ(entrysegment::sizeFor(longest - 17), longest);
}

TEST(EntrySegment, IsOfTheLargestSizeWhereNoneCanHoldTheData) {
    EXPECT_EQ(entrysegment::sizeFor(longest - 16), longest);
    EXPECT_EQ(entrysegment::sizeFor(longest), longest);
}

TEST(EntrySegment, HoldsReadyThenTheLengthOfTheFirstStringThenBothStrings) {
    EXPECT_EQ(entrysegment::contentsOf({"ab", "c"}),
              "\1"s + std::string(7, '\0') + numberBytes(2) + "abc\0"s);
}

TEST(EntrySegment, IsAsLargeAsItsNameWillState) {
    for (const std::size_t length : {0U, 1U, 3U, 5000U}) {
        const DataPair data(std::string(length / 2, 'x'), std::string(length - length / 2, 'y'));
        EXPECT_EQ(entrysegment::contentsOf(data).size(), entrysegment::sizeFor(length));
    }
}

TEST(EntrySegment, GivesBackWhatWasPublished) {
    for (const DataPair& data :
         {DataPair("ab", "c"), DataPair("", "abc"), DataPair("abc", ""),
          DataPair("a\0b"s, "\xff\0"s), DataPair("", ""), DataPair(std::string(2000, 'x'), "y")}) {
        EXPECT_EQ(entrysegment::read(entrysegment::contentsOf(data),
                                     data.first.size() + data.second.size()),
                  data);
    }
}

TEST(EntrySegment, SplitsTheDataWhereTheFirstStringEnds) {
    EXPECT_EQ(entrysegment::read(segment(1, 0, "abc"), 3), DataPair("", "abc"));
    EXPECT_EQ(entrysegment::read(segment(1, 1, "abc"), 3), DataPair("a", "bc"));
    EXPECT_EQ(entrysegment::read(segment(1, 3, "abc"), 3), DataPair("abc", ""));
}

TEST(EntrySegment, GivesNothingUnlessTheLowestBitOfReadyIsSet) {
    for (const char ready : {'\0', '\2', '\xfe'}) {
        EXPECT_EQ(entrysegment::read(segment(ready, 1, "abc"), 3), DataPair());
    }
    for (const char ready : {'\1', '\3', '\xff'}) {
        EXPECT_EQ(entrysegment::read(segment(ready, 1, "abc"), 3), DataPair("a", "bc"));
    }
}

TEST(EntrySegment, GivesNothingOnceWithdrawn) {
    const std::string withdrawn =
        entrysegment::contentsOf({"ab", "c"})
            .replace(0, entrysegment::notReady.size(), entrysegment::notReady);
    EXPECT_EQ(entrysegment::read(withdrawn, 3), DataPair());
}

TEST(EntrySegment, RefusesAFirstStringThatIsLongerThanBoth) {
    const std::uint64_t endless = std::numeric_limits<std::uint64_t>::max();
    for (const std::uint64_t firstLength : {std::uint64_t{4}, endless / 2 + 1, endless}) {
        EXPECT_THROW(entrysegment::read(segment(1, firstLength, "abc"), 3), std::out_of_range);
    }
}

TEST(EntrySegment, IsNotReadBeforeItIsReadyHoweverWrongItIs) {
    EXPECT_EQ(entrysegment::read(segment(0, 4, "abc"), 3), DataPair());
}
