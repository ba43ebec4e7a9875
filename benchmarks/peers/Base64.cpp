#include "benchmarks/peers/Base64.h"

#include <array>
#include <cstdint>

namespace benchmarks::peers {

namespace {

constexpr std::string_view digits =
    "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";

constexpr std::array<std::uint8_t, 256> makeValues() {
    std::array<std::uint8_t, 256> values{};
    for (std::size_t i = 0; i < digits.size(); ++i) {
        values[static_cast<std::uint8_t>(digits[i])] = static_cast<std::uint8_t>(i);
    }
    return values;
}

constexpr auto values = makeValues();

} // namespace

std::string encodeBase64(std::string_view bytes) {
    std::string text;
    std::uint32_t bits = 0;
    int count = 0;
    for (const char byte : bytes) {
        bits = (bits << 8U) | static_cast<std::uint8_t>(byte);
        for (count += 8; count >= 6; count -= 6) {
            text += digits[(bits >> static_cast<unsigned>(count - 6)) & 63U];
        }
    }
    if (count > 0) {
        text += digits[(bits << static_cast<unsigned>(6 - count)) & 63U];
    }
    text.resize((text.size() + 3) / 4 * 4, '=');
    return text;
}

std::string decodeBase64(std::string_view text) {
    std::string bytes;
    std::uint32_t bits = 0;
    int count = 0;
    for (const char digit : text.substr(0, text.find('='))) {
        bits = (bits << 6U) | values[static_cast<std::uint8_t>(digit)];
        count += 6;
        if (count >= 8) {
            count -= 8;
            bytes +=
                static_cast<char>(static_cast<std::uint8_t>(bits >> static_cast<unsigned>(count)));
        }
    }
    return bytes;
}

} // namespace benchmarks::peers
