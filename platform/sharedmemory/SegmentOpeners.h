#pragma once

#include "foundation/os/Group.h"
#include "sharedmemory/SegmentRecord.h"
#include "sharedmemory/SharedMemory.h"
#include "sharedmemory/SysVSegments.h"

#include <cstddef>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

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

    /// Whether anything stands under the name, also what cannot be attached to.
    bool isTaken(const std::string& name);

    /// The names of segments that begin so and go on, for whoever has just opened one.
    std::vector<std::string> namesWith(const std::string& prefix) const {
        return segments.namesWith(prefix);
    }

    /// Takes a name away that no segment has any more, for whoever has just opened one.
    void removeStale(const std::string& name) { segments.removeStale(name); }

    /// Has the next opener look for the trustee's directory anew.
    void forgetDirectory() { segments.forgetDirectory(); }

    /// What tells an attached System V segment from every other there ever was.
    static SegmentToken tokenOf(const SharedMemory& memory);

    /// Whether an attached System V segment was removed, by a user of the service or by the system.
    /// As `isStillNamed`, but what becomes of its name otherwise is not looked at.
    static bool isRemoved(const SharedMemory& memory);

private:
    SysVSegments segments;
};

} // namespace agent::spf::sharedmemory
