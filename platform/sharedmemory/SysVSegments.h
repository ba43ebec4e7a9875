#pragma once

#include "foundation/os/Group.h"
#include "sharedmemory/RecordDirectory.h"
#include "sharedmemory/SegmentLookup.h"

#include <cstddef>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

namespace agent::spf::sharedmemory {

/// The segments of System V shared memory of one trustee, who is looked up once, and whose
/// directory of records is opened once, when they are first needed. The trustee must outlive this
/// object. All throw as the openers of `SharedMemory` do.
class SysVSegments {
public:
    explicit SysVSegments(const foundation::os::Group& trustee)
        : trustee(trustee) {}

    /// Makes and attaches to a new segment, of zero bytes or of these contents; null when there is
    /// one already.
    std::unique_ptr<SharedMemory::Segment> create(const std::string& name, std::size_t size);
    std::unique_ptr<SharedMemory::Segment> createFilled(const std::string& name,
                                                        std::string_view contents);

    /// Attaches to an existing segment of exactly this name and trustee.
    SegmentLookup find(const std::string& name, std::size_t size);

    /// The names of segments, in the directory that is open, that begin so and go on.
    std::vector<std::string> namesWith(const std::string& prefix) const;

    /// Takes a name away, in the directory that is open, that no segment has any more, as after a
    /// reboot. Where somebody is at its record, it is left to others.
    void removeStale(const std::string& name);

    /// Has the directory opened anew when it is next needed: somebody may have put another one in
    /// its place.
    void forgetDirectory() { directory.reset(); }

private:
    std::string recordNameOf(const std::string& name) const;

    /// Undecided when somebody has removed the new segment or its record before it was finished.
    struct Attempt {
        bool isDecided = false;
        std::unique_ptr<SharedMemory::Segment> segment;
    };

    std::unique_ptr<SharedMemory::Segment> make(const std::string& name, std::size_t size,
                                                std::string_view contents);
    Attempt tryMake(const std::string& recordName, std::size_t size, std::string_view contents);

    const foundation::os::Group& trustee;
    std::shared_ptr<const RecordDirectory> directory;
};

} // namespace agent::spf::sharedmemory
