#include "sharedmemory/SysVSegment.h"

#include "sharedmemory/SegmentTrailer.h"

#include <algorithm>
#include <chrono>
#include <optional>
#include <utility>

namespace agent::spf::sharedmemory {

namespace os = foundation::os;

SysVSegment::SysVSegment(std::string trustee, std::shared_ptr<const RecordDirectory> directory,
                         const std::string& recordName, const os::FileIdentity& identity,
                         const SegmentRecord& record, std::size_t wholeSize,
                         sysv::Attachment attachment)
    : Segment(std::move(trustee))
    , directory(std::move(directory))
    , where(this->directory->at(recordName))
    , path(this->directory->pathOf(recordName))
    , hiddenName(UnnamedRecord::hiddenName(record.token))
    , identity(identity)
    , record(record)
    , wholeSize(wholeSize)
    , attachment(std::move(attachment)) {
}

std::size_t SysVSegment::size() const noexcept {
    return wholeSize - trailer::size;
}

bool SysVSegment::isRemoved() const noexcept {
    if (!trailer::matches(end(), record.token)) {
        return true;
    }
    const auto status = sysv::statusOf(record.id);
    return !status || status->isRemoved;
}

bool SysVSegment::isStillNamed() const noexcept {
    return os::identityAt(path) == identity && !isRemoved();
}

void SysVSegment::remove() noexcept {
    std::copy(lastBytes().begin(), lastBytes().end(), attachment.get());
    auto unnamed = takeRecord();
    trailer::markRemoved(end(), record.token);
    if (!sysv::removeSegment(record.id) && unnamed) {
        unnamed->leaveToOwner();
    }
}

std::optional<UnnamedRecord> SysVSegment::takeRecord() noexcept {
    // Others are at a record for a moment only. Where one was stopped in it, the trailer says to
    // all who find the record that its segment is gone.
    constexpr std::chrono::milliseconds aMoment{20};
    RecordFile file = tryOpenRecord(where);
    // Not told by the file's identity, which may be a later one's once the file is gone.
    return file.record == record
               ? UnnamedRecord::takeName(where, std::move(file), std::move(hiddenName), aMoment)
               : std::nullopt;
}

} // namespace agent::spf::sharedmemory
