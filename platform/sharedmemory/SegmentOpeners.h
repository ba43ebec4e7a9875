#pragma once

#include "foundation/os/Group.h"
#include "sharedmemory/SegmentRecord.h"
#include "sharedmemory/SharedMemory.h"
#include "sharedmemory/SysVSegments.h"

#include <cstddef>
#include <optional>
#include <string>
#include <string_view>

namespace agent::spf::sharedmemory {

/// The openers of System V segments for an operation that opens several of one trustee, which must
/// outlive this object.
class SharedMemory::Openers {
public:
    explicit Openers(const foundation::os::Group& trustee)
        : segments(trustee) {}

    SharedMemory create(const std::string& name, std::size_t size);
    SharedMemory createFilled(const std::string& name, std::string_view contents);
    SharedMemory createOrFind(const std::string& name, std::size_t size);

    /// Without the search through the caller's groups that an empty trustee stands for otherwise.
    SharedMemory findExactly(const std::string& name, std::size_t size);

    /// What tells an attached System V segment from every other there ever was.
    static SegmentToken tokenOf(const SharedMemory& memory);

    /// Whether a user of the service has removed an attached System V segment. What the system
    /// removes, as at a logout, is only `isStillNamed` aware of.
    static bool isMarkedRemoved(const SharedMemory& memory);

private:
    SysVSegments segments;
};

} // namespace agent::spf::sharedmemory
