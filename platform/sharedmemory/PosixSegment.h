#pragma once

#include "sharedmemory/Segment.h"

#include <cstddef>
#include <memory>
#include <string>

namespace agent::spf::sharedmemory {

/// The result of a look-up by name.
struct PosixLookup {
    std::unique_ptr<SharedMemory::Segment> segment;
    /// Nothing was attached although something stands under the name: too small, or not to be
    /// trusted.
    bool isTaken = false;
};

/// Makes and attaches to a new POSIX segment; null when there is one already.
std::unique_ptr<SharedMemory::Segment> createPosixSegment(const std::string& name, std::size_t size,
                                                          const std::string& trustee);

/// Attaches to an existing POSIX segment.
PosixLookup findPosixSegment(const std::string& name, std::size_t size, const std::string& trustee);

} // namespace agent::spf::sharedmemory
