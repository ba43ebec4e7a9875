#include "endpointregistry/detail/EntrySegment.h"

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <limits>

namespace agent::spf::endpointregistry::entrysegment {

namespace {

constexpr std::size_t firstLengthOffset = 8;
constexpr std::size_t dataOffset = 16;
constexpr std::size_t overhead = 17;
constexpr unsigned char readyBit = 1;

} // namespace

std::size_t sizeFor(unsigned long length) {
    constexpr std::size_t largest = std::numeric_limits<std::size_t>::max();
    return length > largest - overhead ? largest : length + overhead;
}

std::string contentsOf(const std::pair<std::string, std::string>& data) {
    const std::uint64_t firstLength = data.first.size();
    std::string bytes;
    bytes.reserve(sizeFor(data.first.size() + data.second.size()));
    bytes.append(dataOffset, '\0');
    bytes.front() = static_cast<char>(readyBit);
    std::memcpy(bytes.data() + firstLengthOffset, &firstLength, sizeof firstLength);
    bytes += data.first;
    bytes += data.second;
    bytes += '\0'; // The byte that is never used.
    return bytes;
}

std::pair<std::string, std::string> read(const std::string& copy, unsigned long length) {
    if ((static_cast<unsigned char>(copy.at(0)) & readyBit) == 0) {
        return {};
    }
    const std::string_view joined = std::string_view(copy).substr(dataOffset, length);
    std::uint64_t firstLength = 0;
    std::memcpy(&firstLength, copy.data() + firstLengthOffset, sizeof firstLength);
    return {std::string(joined.substr(0, firstLength)), std::string(joined.substr(firstLength))};
}

} // namespace agent::spf::endpointregistry::entrysegment
