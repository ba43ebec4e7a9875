#pragma once

#include "foundation/os/Group.h"
#include "sharedmemory/SegmentLookup.h"

#include <cstddef>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

namespace agent::spf::sharedmemory {

/// Makes and attaches to a new POSIX segment; null when there is one already.
std::unique_ptr<SharedMemory::Segment> createPosixSegment(const std::string& name, std::size_t size,
                                                          const foundation::os::Group& trustee);

/// The same for a segment of these contents, which is mapped when its address is first asked for.
std::unique_ptr<SharedMemory::Segment>
createFilledPosixSegment(const std::string& name, std::string_view contents,
                         const foundation::os::Group& trustee);

/// Attaches to an existing POSIX segment.
SegmentLookup findPosixSegment(const std::string& name, std::size_t size,
                               const foundation::os::Group& trustee);

/// Copies the first bytes of an existing POSIX segment; nothing where none could be attached.
std::optional<std::string> readPosixSegment(const std::string& name, std::size_t size,
                                            const foundation::os::Group& trustee);

} // namespace agent::spf::sharedmemory
