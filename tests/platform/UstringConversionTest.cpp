#include "fl/i18n/UstringConversion.h"

#include <gtest/gtest.h>
#include <string>

namespace {

using fl::i18n::ustring_to_utf8;

TEST(UstringConversion, KeepsAscii) {
    EXPECT_EQ(ustring_to_utf8(u"/dev/shm/Name-0"), "/dev/shm/Name-0");
    EXPECT_EQ(ustring_to_utf8(u""), "");
}

TEST(UstringConversion, KeepsEmbeddedZeros) {
    EXPECT_EQ(ustring_to_utf8(std::u16string(u"a\0b", 3)), std::string("a\0b", 3));
}

TEST(UstringConversion, EncodesEveryLengthOfUtf8) {
    EXPECT_EQ(ustring_to_utf8(u"\u007f\u0080\u07ff\u0800\uffff"),
              "\x7f\xc2\x80\xdf\xbf\xe0\xa0\x80\xef\xbf\xbf");
    EXPECT_EQ(ustring_to_utf8(u"\U00010000\U0010ffff"), "\xf0\x90\x80\x80\xf4\x8f\xbf\xbf");
}

TEST(UstringConversion, LeavesOutLoneSurrogatesAndWhatStandsForTheirOtherHalf) {
    constexpr char16_t high = 0xd83d;
    constexpr char16_t low = 0xde00;
    EXPECT_EQ(ustring_to_utf8({u'a', high, u'b', u'c'}), "ac");
    EXPECT_EQ(ustring_to_utf8({u'a', low, u'b'}), "ab");
    EXPECT_EQ(ustring_to_utf8({low, u'a', high}), "a");
    EXPECT_EQ(ustring_to_utf8({u'a', high, low}), "a\xf0\x9f\x98\x80");
}

} // namespace
