#include "endpointregistry/detail/EntrySegment.h"

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <limits>

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

std::pair<std::string, std::string> read(void* segment, unsigned long length) {
    if ((readyOf(segment).load(std::memory_order_acquire) & readyBit) == 0) {
        return {};
    }
    const char* const bytes = bytesOf(segment);
    const std::string joined(bytes + dataOffset, length);
    std::uint64_t firstLength = 0;
    std::memcpy(&firstLength, bytes + firstLengthOffset, sizeof firstLength);
    return {joined.substr(0, firstLength), joined.substr(firstLength)};
}

} // namespace agent::spf::endpointregistry::entrysegment
