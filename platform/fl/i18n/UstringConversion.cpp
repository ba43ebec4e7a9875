#include "fl/i18n/UstringConversion.h"

#include <boost/locale/encoding_utf.hpp>

namespace fl::i18n {

std::string ustring_to_utf8(const std::u16string& text) {
    return boost::locale::conv::utf_to_utf<char>(text);
}

} // namespace fl::i18n
