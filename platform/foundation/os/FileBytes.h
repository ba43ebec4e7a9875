#pragma once

#include <cstddef>
#include <optional>
#include <string>
#include <string_view>

namespace foundation::os {

/// Writes all the bytes at this offset of an open file. Returns 0 or the errno value.
int writeAll(int descriptor, std::string_view bytes, std::size_t offset) noexcept;

/// The first `size` bytes of an open file; nothing, with errno set, when it cannot be read, and
/// with errno 0 when it is shorter.
std::optional<std::string> readFirst(int descriptor, std::size_t size);

} // namespace foundation::os
