#pragma once

#include "sharedmemory/SegmentLookup.h"

#include <cstddef>
#include <memory>
#include <string>

namespace agent::spf::sharedmemory {

/// Makes and attaches to a new POSIX segment; null when there is one already.
std::unique_ptr<SharedMemory::Segment> createPosixSegment(const std::string& name, std::size_t size,
                                                          const std::string& trustee);

/// Attaches to an existing POSIX segment.
SegmentLookup findPosixSegment(const std::string& name, std::size_t size,
                               const std::string& trustee);

} // namespace agent::spf::sharedmemory
