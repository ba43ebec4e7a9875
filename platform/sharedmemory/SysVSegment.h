#pragma once

#include "foundation/os/Group.h"
#include "sharedmemory/SegmentLookup.h"

#include <cstddef>
#include <memory>
#include <string>
#include <string_view>

namespace agent::spf::sharedmemory {

/// Makes and attaches to a new segment of System V shared memory; null when there is one already.
std::unique_ptr<SharedMemory::Segment> createSysVSegment(const std::string& name, std::size_t size,
                                                         const foundation::os::Group& trustee);

/// The same for a segment of these contents.
std::unique_ptr<SharedMemory::Segment>
createFilledSysVSegment(const std::string& name, std::string_view contents,
                        const foundation::os::Group& trustee);

/// Attaches to an existing segment of exactly this name and trustee.
SegmentLookup findSysVSegment(const std::string& name, std::size_t size,
                              const foundation::os::Group& trustee);

} // namespace agent::spf::sharedmemory
