#pragma once

#include <string>

#pragma GCC visibility push(default)

namespace fl::i18n {

/// Converts UTF-16 to UTF-8; a surrogate without its other half is left out, together with the unit
/// that stands in that half's place. May be called from any thread.
std::string ustring_to_utf8(const std::u16string& text);

} // namespace fl::i18n

#pragma GCC visibility pop
