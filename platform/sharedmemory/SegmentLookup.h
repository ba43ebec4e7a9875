#pragma once

#include "sharedmemory/Segment.h"

#include <memory>

namespace agent::spf::sharedmemory {

/// The result of a look-up by name.
struct SegmentLookup {
    std::unique_ptr<SharedMemory::Segment> segment;
    /// Nothing was attached although something stands under the name: too small, or not to be
    /// trusted.
    bool isTaken = false;
};

} // namespace agent::spf::sharedmemory
