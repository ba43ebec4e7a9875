#include "endpointregistry/detail/EntrySegment.h"

#include <algorithm>
#include <array>
#include <cstdint>
#include <cstring>
#include <gtest/gtest.h>
#include <limits>
#include <memory>
#include <stdexcept>
#include <string>
#include <utility>

namespace entrysegment = agent::spf::endpointregistry::entrysegment;
using namespace std::string_literals;

namespace {

using DataPair = std::pair<std::string, std::string>;

constexpr std::size_t capacity = 4096;
constexpr auto longest = std::numeric_limits<unsigned long>::max();

/// Memory as a segment has it: at the start of a page.
class Page {
public:
    explicit Page(char filler) { bytes->fill(filler); }
    explicit Page(const std::string& content)
        : Page('\0') {
        std::copy(content.begin(), content.end(), bytes->begin());
    }

    void* get() const { return bytes->data(); }
    std::string content(std::size_t size) const { return {bytes->data(), size}; }

private:
    struct alignas(capacity) Bytes : std::array<char, capacity> {};
    std::unique_ptr<Bytes> bytes = std::make_unique<Bytes>();
};

std::string numberBytes(std::uint64_t number) {
    std::string bytes(sizeof number, '\0');
    std::memcpy(bytes.data(), &number, sizeof number);
    return bytes;
}

/// A segment of these fields, its reserved bytes zero.
Page segment(char ready, std::uint64_t firstLength, const std::string& data) {
    return Page(std::string(1, ready) + std::string(7, '\0') + numberBytes(firstLength) + data);
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
    const Page page('\0');
    entrysegment::publish(page.get(), {"ab", "c"});
    EXPECT_EQ(page.content(20), "\1"s + std::string(7, '\0') + numberBytes(2) + "abc\0"s);
}

TEST(EntrySegment, KeepsItsReservedBytesWhenPublished) {
    const Page page('\x5a');
    entrysegment::publish(page.get(), {"ab", "c"});
    EXPECT_EQ(page.content(21), "\1"s + std::string(7, '\x5a') + numberBytes(2) + "abc\x5a\x5a"s);
}

TEST(EntrySegment, LosesOnlyItsReadinessWhenWithdrawn) {
    const Page page('\x5a');
    entrysegment::publish(page.get(), {"ab", "c"});
    const std::string published = page.content(capacity);
    entrysegment::withdraw(page.get());
    EXPECT_EQ(page.content(capacity), "\0"s + published.substr(1));
}

TEST(EntrySegment, GivesBackWhatWasPublished) {
    for (const DataPair& data :
         {DataPair("ab", "c"), DataPair("", "abc"), DataPair("abc", ""),
          DataPair("a\0b"s, "\xff\0"s), DataPair("", ""), DataPair(std::string(2000, 'x'), "y")}) {
        const Page page('\x5a');
        entrysegment::publish(page.get(), data);
        EXPECT_EQ(
            entrysegment::read(page.content(capacity), data.first.size() + data.second.size()),
            data);
    }
}

TEST(EntrySegment, SplitsTheDataWhereTheFirstStringEnds) {
    EXPECT_EQ(entrysegment::read(segment(1, 0, "abc").content(capacity), 3), DataPair("", "abc"));
    EXPECT_EQ(entrysegment::read(segment(1, 1, "abc").content(capacity), 3), DataPair("a", "bc"));
    EXPECT_EQ(entrysegment::read(segment(1, 3, "abc").content(capacity), 3), DataPair("abc", ""));
}

TEST(EntrySegment, GivesNothingUnlessTheLowestBitOfReadyIsSet) {
    for (const char ready : {'\0', '\2', '\xfe'}) {
        EXPECT_EQ(entrysegment::read(segment(ready, 1, "abc").content(capacity), 3), DataPair());
    }
    for (const char ready : {'\1', '\3', '\xff'}) {
        EXPECT_EQ(entrysegment::read(segment(ready, 1, "abc").content(capacity), 3),
                  DataPair("a", "bc"));
    }
}

TEST(EntrySegment, GivesNothingOnceWithdrawn) {
    const Page page('\0');
    entrysegment::publish(page.get(), {"ab", "c"});
    entrysegment::withdraw(page.get());
    EXPECT_EQ(entrysegment::read(page.content(capacity), 3), DataPair());
}

TEST(EntrySegment, RefusesAFirstStringThatIsLongerThanBoth) {
    const std::uint64_t endless = std::numeric_limits<std::uint64_t>::max();
    for (const std::uint64_t firstLength : {std::uint64_t{4}, endless / 2 + 1, endless}) {
        EXPECT_THROW(entrysegment::read(segment(1, firstLength, "abc").content(capacity), 3),
                     std::out_of_range);
    }
}

TEST(EntrySegment, IsNotReadBeforeItIsReadyHoweverWrongItIs) {
    EXPECT_EQ(entrysegment::read(segment(0, 4, "abc").content(capacity), 3), DataPair());
}
