#pragma once

#include "foundation/os/FileIdentity.h"
#include "sharedmemory/RecordDirectory.h"
#include "sharedmemory/Segment.h"
#include "sharedmemory/SegmentRecord.h"
#include "sharedmemory/SysVKernel.h"
#include "sharedmemory/UnnamedRecord.h"

#include <cstddef>
#include <memory>
#include <optional>
#include <string>

namespace agent::spf::sharedmemory {

/// What a handle holds of a segment of System V shared memory.
class SysVSegment final : public SharedMemory::Segment {
public:
    /// `wholeSize` is the kernel's, the trailer included.
    SysVSegment(std::string trustee, std::shared_ptr<const RecordDirectory> directory,
                const std::string& recordName, const foundation::os::FileIdentity& identity,
                const SegmentRecord& record, std::size_t wholeSize, sysv::Attachment attachment);

    void* address() const noexcept override { return attachment.get(); }
    std::size_t size() const noexcept override;
    bool isStillNamed() const noexcept override;
    void remove() noexcept override;

    const SegmentToken& token() const { return record.token; }

    /// Whether it was removed, by a user of the service or by the system.
    bool isRemoved() const noexcept;

private:
    /// Takes the name away, where it still stands for this segment.
    std::optional<UnnamedRecord> takeRecord() noexcept;

    char* end() const noexcept { return attachment.get() + wholeSize; }

    std::shared_ptr<const RecordDirectory> directory;
    foundation::os::PathAt where;
    foundation::os::PathAt path;
    /// Made beforehand, since a removal must not allocate.
    std::string hiddenName;
    foundation::os::FileIdentity identity;
    SegmentRecord record;
    std::size_t wholeSize;
    sysv::Attachment attachment;
};

} // namespace agent::spf::sharedmemory
