#pragma once

#include "foundation/os/Group.h"
#include "sharedmemory/SegmentLookup.h"

#include <cstddef>
#include <memory>
#include <string>

namespace agent::spf::sharedmemory {

/// Makes and attaches to a new segment of System V shared memory, filled before it can be found;
/// null when there is one already.
std::unique_ptr<SharedMemory::Segment> createSysVSegment(const std::string& name, std::size_t size,
                                                         const foundation::os::Group& trustee,
                                                         const SharedMemory::Fill& fill);

/// Attaches to an existing segment of exactly this name and trustee.
SegmentLookup findSysVSegment(const std::string& name, std::size_t size,
                              const foundation::os::Group& trustee);

} // namespace agent::spf::sharedmemory
