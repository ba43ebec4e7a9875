#pragma once

#include "foundation/os/FileDescriptor.h"
#include "foundation/os/Group.h"
#include "sharedmemory/SegmentName.h"

#include <cstddef>
#include <optional>
#include <string>
#include <sys/stat.h>
#include <sys/types.h>

namespace agent::spf::sharedmemory {

/// Where the POSIX segment of one name and trustee is looked for, and who may have made it.
struct SegmentPath {
    /// Throws as `groupOf` does.
    SegmentPath(const std::string& name, const foundation::os::Group& trustee);

    /// A file under the segment's name.
    struct ExistingFile {
        /// Empty unless the file is trusted to be the segment.
        foundation::os::FileDescriptor descriptor;
        struct stat status {};
        /// Whether there is anything under the name.
        bool isTaken = false;

        bool isTrusted() const { return static_cast<bool>(descriptor); }
    };

    /// Opens what stands there, with O_RDONLY or O_RDWR. Throws std::runtime_error when there is no
    /// descriptor or memory left.
    ExistingFile openExisting(int access) const;

    /// How many bytes of a trusted file are the caller's.
    std::size_t callersSize(const ExistingFile& file) const {
        return static_cast<std::size_t>(file.status.st_size) - segmentName.trailer.size();
    }

    mode_t mode() const;

    uid_t user;
    SegmentName segmentName;
    std::string path;
    std::optional<gid_t> group;

private:
    bool trusts(const struct stat& status) const;
    bool isProvenBy(const ExistingFile& file) const;
};

} // namespace agent::spf::sharedmemory
