#pragma once

#include "endpointregistry/detail/LockedDescriptor.h"

#include <string>

namespace agent::spf::endpointregistry {

/// A file opened and locked in one step, or why it was not.
struct LockingOpen {
    LockedDescriptor lock;
    /// 0, or the errno value; EWOULDBLOCK when another holder has the lock.
    int error = 0;
    /// Whether this call made the file.
    bool isNew = false;
};

enum class Existing { accepted, refused };
enum class Waiting { forLock, never };

/// Opens and exclusively locks the regular file at `path`, making it with mode 0400 when it is
/// missing. A new file appears already locked, and the lock is on the file that stands under
/// `path` when the call returns: a file that was removed meanwhile is not what its name means.
/// `Existing::refused` yields EEXIST when there is anything under the name.
LockingOpen openAndLock(const std::string& path, Existing existing, Waiting waiting);

/// Opens the regular file at `path` and shares its lock, without making the file or waiting.
///
/// This is how to ask whether a publisher lives: any number of processes may share the lock, so
/// they never take each other for a publisher, and a publisher that wants the lock exclusively
/// knows them from a holder.
LockingOpen openAndShareLock(const std::string& path);

} // namespace agent::spf::endpointregistry
