#pragma once

#include "sharedmemory/Segment.h"

#include <memory>

namespace agent::spf::sharedmemory {

/// The result of a look-up by name.
struct SegmentLookup {
    std::unique_ptr<SharedMemory::Segment> segment;
    /// Something stands under the name, even if nothing was attached: because it is too small, not
    /// to be trusted or closed to this process.
    bool isTaken = false;
};

} // namespace agent::spf::sharedmemory
