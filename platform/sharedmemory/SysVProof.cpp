#include "sharedmemory/SysVProof.h"

#include <algorithm>
#include <atomic>
#include <cstdint>
#include <string_view>

namespace agent::spf::sharedmemory::sysvproof {

namespace {

constexpr std::string_view mark = "qvShmSeg";
constexpr std::size_t stateSize = 1;
constexpr std::size_t tailSize = mark.size() + stateSize;
constexpr std::uint8_t removed = 1;

using State = std::atomic_ref<std::uint8_t>;
static_assert(State::is_always_lock_free, "a lock would be known to one process only");

State stateOf(const char* segment, std::size_t size) {
    // NOLINTNEXTLINE: an atomic reference wants a byte that it could write to
    return State(*reinterpret_cast<std::uint8_t*>(const_cast<char*>(segment) + size - stateSize));
}

} // namespace

std::size_t sizeFor(const std::string& identity) {
    return identity.size() + tailSize;
}

void write(char* segment, std::size_t size, const std::string& identity) {
    char* const tail =
        std::copy(identity.begin(), identity.end(), segment + size - sizeFor(identity));
    std::copy(mark.begin(), mark.end(), tail);
}

std::optional<std::size_t> callersSize(const char* segment, std::size_t size,
                                       const std::string& identity) {
    if (size <= sizeFor(identity) || !isMarked(segment, size)) {
        return std::nullopt;
    }
    const std::size_t callers = size - sizeFor(identity);
    if (std::string_view(segment + callers, identity.size()) != identity) {
        return std::nullopt;
    }
    return callers;
}

bool isMarked(const char* segment, std::size_t size) {
    return size > tailSize && std::string_view(segment + size - tailSize, mark.size()) == mark;
}

bool isBlank(const char* segment, std::size_t size) {
    const std::size_t examined = std::min(size, tailSize);
    return std::all_of(segment + size - examined, segment + size,
                       [](char byte) { return byte == 0; });
}

bool isRemoved(const char* segment, std::size_t size) {
    return stateOf(segment, size).load() == removed;
}

void markRemoved(char* segment, std::size_t size) {
    stateOf(segment, size).store(removed);
}

} // namespace agent::spf::sharedmemory::sysvproof
