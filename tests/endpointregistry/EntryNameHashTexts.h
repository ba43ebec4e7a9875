#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

namespace tests {

inline constexpr std::size_t longestHashedText = 300;

/// The texts behind the hash vectors, two of every length: one of scattered bytes, one of runs of
/// zero bytes between bytes from the upper half.
inline std::string hashedText(std::size_t length, bool scattered) {
    std::string text;
    std::uint64_t state = length;
    for (std::size_t position = 0; position < length; ++position) {
        state = state * 6364136223846793005U + 1442695040888963407U;
        const std::uint64_t runs = position % 5 < 2 ? 0 : 255 - position % 127;
        text += static_cast<char>(scattered ? state >> 56U : runs);
    }
    return text;
}

} // namespace tests
