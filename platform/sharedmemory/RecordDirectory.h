#pragma once

#include "foundation/os/FileDescriptor.h"
#include "foundation/os/FileIdentity.h"
#include "foundation/os/Group.h"
#include "foundation/os/PathAt.h"
#include "sharedmemory/SegmentRecord.h"

#include <optional>
#include <string>
#include <sys/stat.h>
#include <sys/types.h>
#include <utility>

namespace agent::spf::sharedmemory {

/// The directory that holds the records of one trustee's segments, held open: the group's, or the
/// user's own. Who may write there makes what the trustee trusts.
class RecordDirectory {
public:
    // Both throw std::invalid_argument when the trustee is no group, and std::runtime_error when
    // the directory cannot be opened or made, or is not the trustee's.

    /// Nothing when there is none, or when it is closed to this process, which is not in
    /// the group.
    static std::optional<RecordDirectory> tryOpen(const foundation::os::Group& trustee);
    static RecordDirectory openOrCreate(const foundation::os::Group& trustee);

    /// The path of a file in it; valid for as long as this object lives.
    foundation::os::PathAt at(std::string name) const { return {directory.get(), std::move(name)}; }

    /// The same for whoever comes by the directory's path.
    foundation::os::PathAt pathOf(const std::string& name) const { return ownPath + name; }

    /// Whose it is where it is the user's own; of no meaning for a group's.
    uid_t user() const { return ownUser; }

    /// The group that segments and records are given to; nothing for the user's own.
    std::optional<gid_t> group() const { return ownGroup; }

    mode_t segmentMode() const;
    /// Nobody changes a finished record.
    mode_t recordMode() const;

private:
    RecordDirectory(foundation::os::FileDescriptor directory, std::string path,
                    std::optional<gid_t> group);

    foundation::os::FileDescriptor directory;
    /// With a trailing "/".
    std::string ownPath;
    std::optional<gid_t> ownGroup;
    uid_t ownUser;
};

/// A file in such a directory, opened for reading.
struct RecordFile {
    /// Empty where nothing could be opened, with `error` saying why.
    foundation::os::FileDescriptor descriptor;
    int error = 0;
    struct stat status {};
    /// Nothing for a file that is no record.
    std::optional<SegmentRecord> record;

    foundation::os::FileIdentity identity() const { return foundation::os::FileIdentity(status); }

    /// Looks again at what it is and says. False, with `error` set, when it cannot be examined.
    bool reread() noexcept;
};

/// Opens what stands under a path, follows no link and waits for nobody.
RecordFile tryOpenRecord(const foundation::os::PathAt& where) noexcept;

/// The same. Throws std::runtime_error when there is no descriptor or memory left.
RecordFile openRecord(const foundation::os::PathAt& where);

} // namespace agent::spf::sharedmemory
