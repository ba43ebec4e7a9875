#include "endpointregistry/EntryName.h"

#include "tests/endpointregistry/EntryNameHashTexts.h"

#include <array>
#include <gtest/gtest.h>
#include <locale>
#include <string>
#include <string_view>

using namespace agent::spf::endpointregistry;

namespace {

struct HashesOfOneLength {
    std::string_view scattered;
    std::string_view runs;
};

constexpr std::array<HashesOfOneLength, tests::longestHashedText> vectors{{
#include "tests/endpointregistry/EntryNameHashVectors.inc"
}};

class ThousandsInThrees : public std::numpunct<char> {
protected:
    char do_thousands_sep() const override { return ','; }
    std::string do_grouping() const override { return "\3"; }
};

/// Sets the locale of the program for as long as it lives.
class GlobalLocale {
public:
    explicit GlobalLocale(const std::locale& locale)
        : before(std::locale::global(locale)) {}
    ~GlobalLocale() { std::locale::global(before); }

    GlobalLocale(const GlobalLocale&) = delete;
    GlobalLocale& operator=(const GlobalLocale&) = delete;

private:
    std::locale before;
};

} // namespace

TEST(EntryNameHash, OfTheEmptyTextIsEmpty) {
    EXPECT_EQ(hashString(""), "");
}

TEST(EntryNameHash, HasTheAgreedValues) {
    EXPECT_EQ(hashString("grp"), "26cb632b19fb46fe");
    EXPECT_EQ(hashString("alphabeta"), "2df70d375c012084");
    EXPECT_EQ(hashString("key"), "99856d7c6e9accf9");
    EXPECT_EQ(hashString("abc"), "3a912f483a4ece31");
    EXPECT_EQ(hashString("hello world"), "abe4036b6bb6a0a5");
}

TEST(EntryNameHash, IsThatOfTheReferenceForTextsOfEveryLength) {
    for (std::size_t length = 1; length <= vectors.size(); ++length) {
        const HashesOfOneLength& expected = vectors.at(length - 1);
        EXPECT_EQ(hashString(tests::hashedText(length, true)), expected.scattered) << length;
        EXPECT_EQ(hashString(tests::hashedText(length, false)), expected.runs) << length;
    }
}

TEST(EntryNameHash, DoesNotDependOnWhereTheTextLiesInMemory) {
    const std::string text = tests::hashedText(200, true);
    for (std::size_t offset = 0; offset < 16; ++offset) {
        const std::string surrounding = std::string(offset, 'x') + text + "tail";
        EXPECT_EQ(hashString(surrounding.substr(offset, text.size())), vectors.at(199).scattered);
    }
}

TEST(EntryNameHash, IsWrittenWithoutLeadingZeros) {
    EXPECT_EQ(hashString("endpoint 25"), "241a095122c9488");
    EXPECT_EQ(hashString("endpoint 602"), "e3bdebafa91be5");
    EXPECT_EQ(hashString("endpoint 232093"), "8bccc7fd533");
    EXPECT_EQ(getGroupTagPrefix("endpoint 25"), "qvER241a095122c9488");
}

TEST(EntryNameHash, IgnoresTheLocaleOfTheProgram) {
    const GlobalLocale grouping(std::locale(std::locale::classic(), new ThousandsInThrees));

    EXPECT_EQ(hashString("grp"), "26cb632b19fb46fe");
}
