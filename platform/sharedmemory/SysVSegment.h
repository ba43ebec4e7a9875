#pragma once

#include "sharedmemory/SegmentLookup.h"

#include <cstddef>
#include <memory>
#include <string>

namespace agent::spf::sharedmemory {

/// Makes and attaches to a new segment of System V shared memory; null when there is one already.
std::unique_ptr<SharedMemory::Segment> createSysVSegment(const std::string& name, std::size_t size,
                                                         const std::string& trustee);

/// Attaches to an existing segment of exactly this name and trustee.
SegmentLookup findSysVSegment(const std::string& name, std::size_t size,
                              const std::string& trustee);

} // namespace agent::spf::sharedmemory
