#pragma once

#include "endpointregistry/detail/LockedDescriptor.h"
#include "foundation/os/FileIdentity.h"
#include "foundation/os/FilePlace.h"

#include <optional>
#include <sys/stat.h>
#include <sys/types.h>

namespace agent::spf::endpointregistry {

/// A file opened and locked in one step, or why it was not.
struct LockingOpen {
    LockedDescriptor lock;
    /// 0, or the errno value; EWOULDBLOCK when another holder has the lock.
    int error = 0;
    /// Whether this call made the file.
    bool isNew = false;
    /// Which file it is; nothing unless it is locked.
    std::optional<foundation::os::FileIdentity> identity = std::nullopt;
    /// What an existing file is like; a new one is as it was asked for.
    struct stat status = {};
};

/// The mode of a file that a group shares. The owner may only read what the group may do anything
/// with; so the files have always been.
inline constexpr mode_t groupFileMode = S_IRUSR | S_IRWXG;

enum class Existing { accepted, refused };
enum class Waiting { forLock, never };

/// Opens and exclusively locks the regular file in this place, making it when it is missing: with
/// mode 0400, or with `groupFileMode` for a group. A new file appears already locked, with its
/// final group and mode, and the lock is on the file that stands there when the call returns: a
/// file that was removed meanwhile is not what its name means. A group's, whose folder may have
/// been put elsewhere, is for the caller to compare. `Existing::refused` yields EEXIST when there
/// is anything under the name.
LockingOpen openAndLock(const foundation::os::FilePlace& place, Existing existing, Waiting waiting,
                        std::optional<gid_t> group = std::nullopt);

/// Opens the regular file in this place and shares its lock, without making the file or waiting.
///
/// This is how to ask whether a publisher lives: any number of processes may share the lock, so
/// they never take each other for a publisher, and a publisher that wants the lock exclusively
/// knows them from a holder.
LockingOpen openAndShareLock(const foundation::os::FilePlace& place);

} // namespace agent::spf::endpointregistry
