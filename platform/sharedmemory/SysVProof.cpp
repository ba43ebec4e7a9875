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

/// All of it but the state.
std::string proofOf(const std::string& identity) {
    const std::uint64_t length = identity.size();
    std::string proof = identity;
    // The length tells an identity from another that ends in it.
    // NOLINTNEXTLINE(cppcoreguidelines-pro-type-reinterpret-cast): the bytes of a number
    proof.append(reinterpret_cast<const char*>(&length), sizeof length);
    return proof.append(mark);
}

State stateOf(const char* segment, std::size_t size) {
    // NOLINTNEXTLINE: an atomic reference wants a byte that it could write to
    return State(*reinterpret_cast<std::uint8_t*>(const_cast<char*>(segment) + size - stateSize));
}

} // namespace

std::size_t sizeFor(const std::string& identity) {
    return identity.size() + sizeof(std::uint64_t) + tailSize;
}

void write(char* segment, std::size_t size, const std::string& identity) {
    const std::string proof = proofOf(identity);
    std::copy(proof.begin(), proof.end(), segment + size - sizeFor(identity));
}

std::optional<std::size_t> callersSize(const char* segment, std::size_t size,
                                       const std::string& identity) {
    if (size <= sizeFor(identity)) {
        return std::nullopt;
    }
    const std::size_t callers = size - sizeFor(identity);
    const std::string proof = proofOf(identity);
    return std::string_view(segment + callers, proof.size()) == proof ? std::optional(callers)
                                                                      : std::nullopt;
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
