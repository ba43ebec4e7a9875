#pragma once

#include "sharedmemory/SegmentRecord.h"

#include <cstddef>

/// What stands in a segment of System V shared memory behind the caller's bytes, to the segment's
/// end: the token that its record states, or, once the segment was removed by somebody who may not
/// remove it from the kernel, that token with its first byte inverted. Other processes may read and
/// change it at any time. `end` is where the segment ends.
namespace agent::spf::sharedmemory::trailer {

inline constexpr std::size_t size = sizeof(SegmentToken);

void write(char* end, const SegmentToken& token);

bool matches(const char* end, const SegmentToken& token);

/// Whether the segment is the token's, removed or not.
bool belongsTo(const char* end, const SegmentToken& token);

void markRemoved(char* end, const SegmentToken& token) noexcept;

} // namespace agent::spf::sharedmemory::trailer
