#include "fl/i18n/UstringConversion.h"

#include <algorithm>
#include <boost/locale/encoding_utf.hpp>

namespace fl::i18n {

std::string ustring_to_utf8(const std::u16string& text) {
    // Most texts are paths of ASCII alone, and each lookup converts one: decoding character by
    // character would take it three times as long.
    constexpr char16_t firstBeyondAscii = 0x80;
    if (std::all_of(text.begin(), text.end(), [](char16_t c) { return c < firstBeyondAscii; })) {
        return {text.begin(), text.end()};
    }
    return boost::locale::conv::utf_to_utf<char>(text);
}

} // namespace fl::i18n
