#include "sharedmemory/SegmentTrailer.h"

#include <algorithm>
#include <atomic>

namespace agent::spf::sharedmemory::trailer {

namespace {

using FirstByte = std::atomic_ref<unsigned char>;
static_assert(FirstByte::is_always_lock_free, "a lock would be known to one process only");

/// The one byte that changes in a segment's life.
FirstByte firstByte(const char* end) {
    // NOLINTNEXTLINE: an atomic reference wants a byte that it could write to
    return FirstByte(*reinterpret_cast<unsigned char*>(const_cast<char*>(end) - size));
}

unsigned char inverted(unsigned char byte) {
    constexpr unsigned char all = 0xFF;
    return byte ^ all;
}

bool restMatches(const char* end, const SegmentToken& token) {
    return std::equal(token.begin() + 1, token.end(), end - size + 1, [](auto wanted, auto there) {
        return wanted == static_cast<unsigned char>(there);
    });
}

} // namespace

void write(char* end, const SegmentToken& token) {
    std::copy(token.begin(), token.end(), end - size);
}

bool matches(const char* end, const SegmentToken& token) {
    return firstByte(end).load() == token.front() && restMatches(end, token);
}

bool belongsTo(const char* end, const SegmentToken& token) {
    const unsigned char first = firstByte(end).load();
    return (first == token.front() || first == inverted(token.front())) && restMatches(end, token);
}

void markRemoved(char* end, const SegmentToken& token) noexcept {
    firstByte(end).store(inverted(token.front()));
}

} // namespace agent::spf::sharedmemory::trailer
