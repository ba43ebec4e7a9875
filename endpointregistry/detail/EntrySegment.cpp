#include "endpointregistry/detail/EntrySegment.h"

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <limits>
#include <string_view>

namespace agent::spf::endpointregistry::entrysegment {

namespace {

constexpr std::size_t firstLengthOffset = 8;
constexpr std::size_t dataOffset = 16;
constexpr std::size_t overhead = 17;
constexpr std::uint8_t readyBit = 1;

using Ready = std::atomic_ref<std::uint8_t>;
static_assert(Ready::is_always_lock_free, "a lock would be known to one process only");

char* bytesOf(void* segment) {
    return static_cast<char*>(segment);
}

Ready readyOf(void* segment) {
    return Ready(*static_cast<std::uint8_t*>(segment));
}

} // namespace

std::size_t sizeFor(unsigned long length) {
    constexpr std::size_t largest = std::numeric_limits<std::size_t>::max();
    return length > largest - overhead ? largest : length + overhead;
}

void publish(void* segment, const std::pair<std::string, std::string>& data) {
    const std::uint64_t firstLength = data.first.size();
    char* const bytes = bytesOf(segment);
    data.first.copy(bytes + dataOffset, data.first.size());
    data.second.copy(bytes + dataOffset + firstLength, data.second.size());
    std::memcpy(bytes + firstLengthOffset, &firstLength, sizeof firstLength);
    readyOf(segment).store(readyBit);
}

void withdraw(void* segment) {
    readyOf(segment).store(0);
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
