#pragma once

#include "foundation/os/FileDescriptor.h"
#include "foundation/os/FileIdentity.h"
#include "foundation/os/PathAt.h"
#include "sharedmemory/RecordDirectory.h"
#include "sharedmemory/SegmentRecord.h"

#include <chrono>
#include <optional>
#include <string>
#include <sys/types.h>

namespace agent::spf::sharedmemory {

/// Mode of a segment that is being made: the execute bits grant nothing for shared memory, and no
/// other program sets them. It gets its final mode and group in one step.
inline constexpr mode_t modeWhileMade = 0711;

/// A record that has no name: of a segment that is being made, or that was removed.
///
/// It stands under a hidden name in its directory, and whoever is at it holds its lock. One that
/// nobody holds is a note to its owner, who made the segment and may remove it from the kernel: its
/// maker died, or another member has taken the segment's name away.
class UnnamedRecord {
public:
    /// The hidden name: ".unnamed-" and the token in hexadecimal digits.
    static std::string hiddenName(const SegmentToken& token);

    /// The record of a segment that this process is about to make. Throws std::runtime_error when
    /// it cannot be made.
    static UnnamedRecord create(const RecordDirectory& directory);

    /// Takes its name from an open record, so that nobody finds the segment any more. Nothing when
    /// the name stands for another record by now, or somebody else is at this one for longer than
    /// the time. The hidden name is the caller's to prepare: nothing is allocated here.
    static std::optional<UnnamedRecord> takeName(const foundation::os::PathAt& name,
                                                 RecordFile file, std::string hiddenName,
                                                 std::chrono::milliseconds timeout) noexcept;

    /// Which file it is. Throws std::runtime_error when it cannot be examined.
    foundation::os::FileIdentity identity() const;

    UnnamedRecord(UnnamedRecord&& other) noexcept = default;
    UnnamedRecord& operator=(UnnamedRecord&& other) = delete;
    UnnamedRecord(const UnnamedRecord&) = delete;
    UnnamedRecord& operator=(const UnnamedRecord&) = delete;

    /// Removes it, unless it was given a name or left to its owner.
    ~UnnamedRecord();

    /// For a new record: what it says, and writing which segment it is of. Throws
    /// std::runtime_error when it cannot be written.
    const SegmentRecord& content() const { return record; }
    void complete(int segment);

    /// Gives it a name that is free. Returns 0 or the errno value: EEXIST when the name is taken,
    /// ENOENT when somebody has taken this process for dead.
    int giveName(const foundation::os::PathAt& name) noexcept;

    /// Leaves it as the note to its owner.
    void leaveToOwner() noexcept { letGo(); }

    /// Removes what this user's unnamed records that nobody is at stand for, and then these.
    static void removeAllStale(const RecordDirectory& directory);

private:
    UnnamedRecord(foundation::os::PathAt hidden, foundation::os::FileDescriptor locked) noexcept;

    /// Unlocks the file and closes it.
    void letGo() noexcept;

    foundation::os::PathAt hidden;
    /// Holds the lock; empty when there is nothing to remove any more.
    foundation::os::FileDescriptor file;
    SegmentRecord record;
};

} // namespace agent::spf::sharedmemory
