#include "endpointregistry/EntryName.h"

#include <array>
#include <cstddef>
#include <gtest/gtest.h>
#include <limits>
#include <random>
#include <sstream>
#include <string>
#include <vector>

using namespace agent::spf::endpointregistry;
using namespace std::string_literals;

namespace {

constexpr unsigned long largest = std::numeric_limits<unsigned long>::max();

/// What the standard's formatted extraction reads behind the last marker, or from the whole name
/// where there is no marker.
unsigned long extracted(const std::string& name, char marker) {
    const std::size_t position = name.rfind(marker);
    std::stringstream stream(position == std::string::npos ? name : name.substr(position + 1));
    unsigned long number = 0;
    stream >> number;
    return number;
}

void expectLikeExtraction(const std::string& name) {
    EXPECT_EQ(getLengthFromName(name), extracted(name, 'l')) << testing::PrintToString(name);
    EXPECT_EQ(getPidFromName(name), extracted(name, 'p')) << testing::PrintToString(name);
    EXPECT_EQ(getVersionFromName(name), extracted(name, 'v')) << testing::PrintToString(name);
}

} // namespace

TEST(EntryNameParsers, ReadTheThreeNumbersOfAName) {
    const std::string name = "qvERkl12p5v0";
    EXPECT_EQ(getLengthFromName(name), 12U);
    EXPECT_EQ(getPidFromName(name), 5U);
    EXPECT_EQ(getVersionFromName(name), 0U);

    const std::string full = "qvER26cb632b19fb46fe2df70d375c012084k99856d7c6e9accf9l9p4242v31";
    EXPECT_EQ(getLengthFromName(full), 9U);
    EXPECT_EQ(getPidFromName(full), 4242U);
    EXPECT_EQ(getVersionFromName(full), 31U);
}

TEST(EntryNameParsers, ReadBackWhatGetNameWrote) {
    const std::string name = getName({"alpha", "beta"}, "grp", "key", 987654321, "");

    EXPECT_EQ(getLengthFromName(name), 9U);
    EXPECT_EQ(getVersionFromName(name), 987654321U);
    EXPECT_EQ(getVersionFromName(getName({"a", ""}, "g", "k", largest, "")), largest);
}

TEST(EntryNameParsers, YieldZeroWithoutMarkerOrDigits) {
    for (const std::string& name : {""s, "qvER"s, "qvERk"s, "lpv"s, "l"s, "no digits here"s}) {
        EXPECT_EQ(getLengthFromName(name), 0U) << name;
        EXPECT_EQ(getPidFromName(name), 0U) << name;
        EXPECT_EQ(getVersionFromName(name), 0U) << name;
    }
}

TEST(EntryNameParsers, ReadTheWholeNameWhereTheMarkerIsMissing) {
    EXPECT_EQ(getLengthFromName("17 and more"), 17U);
    EXPECT_EQ(getPidFromName(" 17"), 17U);
    EXPECT_EQ(getVersionFromName("17l18p19"), 17U);
}

TEST(EntryNameParsers, ReadBehindTheLastOfSeveralMarkers) {
    EXPECT_EQ(getLengthFromName("l1l2l3p4"), 3U);
    EXPECT_EQ(getPidFromName("p1p"), 0U);
    EXPECT_EQ(getVersionFromName("v1v v2"), 2U);
}

TEST(EntryNameParsers, YieldTheLargestNumberForALargerOne) {
    EXPECT_EQ(getLengthFromName("l18446744073709551615p"), largest);
    EXPECT_EQ(getLengthFromName("l18446744073709551616p"), largest);
    EXPECT_EQ(getLengthFromName("l" + std::string(100000, '9') + "p1v0"), largest);
    EXPECT_EQ(getLengthFromName("l" + std::string(100000, '0') + "7p1v0"), 7U);
}

TEST(EntryNameParsers, ReadOddNamesAsTheStandardExtractionDoes) {
    const std::vector<std::string> numbers{
        "0",
        "007",
        "010",
        "0x1f",
        "+7",
        "-7",
        "-0",
        "+",
        "-",
        "--7",
        "+-7",
        "- 7",
        " 7",
        "\t\n\v\f\r 7",
        "7 8",
        "7.5",
        "7e3",
        "1,000",
        "1'000",
        std::string("\xA0") + "7",
        "\xEF\xBC\x97",
        "\0"s + "7",
        "7\0"s + "8",
        " -7",
        "-18446744073709551615",
        "-18446744073709551616",
        "18446744073709551614",
        "18446744073709551615",
        "18446744073709551616",
        "99999999999999999999",
        "-99999999999999999999",
        "000000000000000000000000000000018446744073709551615",
        "4294967296",
        "2147483648",
        std::string(5000, '1'),
        std::string(5000, ' ') + "3",
    };
    // NOLINTBEGIN(performance-inefficient-string-concatenation): read at a glance
    for (const std::string& number : numbers) {
        expectLikeExtraction(number);
        for (const std::string& marker : {"l"s, "p"s, "v"s}) {
            expectLikeExtraction(marker);
            expectLikeExtraction(marker + number);
            expectLikeExtraction(number + marker);
            expectLikeExtraction(marker + marker + number + marker);
            expectLikeExtraction("qvER12k34l5p6v7" + marker + number);
        }
        std::string whole = "qvERk";
        whole += "l" + number + "p" + number + "v" + number;
        expectLikeExtraction(whole);
    }
    // NOLINTEND(performance-inefficient-string-concatenation)
}

TEST(EntryNameParsers, ReadScatteredCharactersAsTheStandardExtractionDoes) {
    const std::string alphabet = "llppvv0123456789 \t+-,.xek\0"s;
    // NOLINTNEXTLINE(cert-msc32-c,cert-msc51-cpp): the same names each run
    std::mt19937 generator(20240611);
    std::uniform_int_distribution<std::size_t> character(0, alphabet.size() - 1);
    std::uniform_int_distribution<std::size_t> length(0, 24);
    for (int round = 0; round < 50000 && !testing::Test::HasFailure(); ++round) {
        std::string name;
        for (std::size_t left = length(generator); left > 0; --left) {
            name += alphabet[character(generator)];
        }
        expectLikeExtraction(name);
    }
}
