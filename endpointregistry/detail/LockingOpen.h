#pragma once

#include "endpointregistry/detail/LockedDescriptor.h"
#include "foundation/os/FileIdentity.h"
#include "foundation/os/PathAt.h"

#include <chrono>
#include <optional>
#include <string_view>
#include <sys/stat.h>
#include <sys/types.h>

namespace agent::spf::endpointregistry {

/// A file opened and locked in one step, or why it was not.
struct LockingOpen {
    LockedDescriptor lock;
    /// 0, or the errno value; EWOULDBLOCK when another holder has the lock.
    int error = 0;
    /// The process that did not let go of the lock, where one was waited for in vain and had marked
    /// the file; 0 otherwise.
    pid_t holder = 0;
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

/// How long a lock that another holder has is waited for.
class Waiting {
public:
    /// Not at all. Only those that share the lock for a moment are waited for.
    static constexpr Waiting never() { return Waiting(Kind::never); }

    /// Without end.
    static constexpr Waiting forLock() { return Waiting(Kind::forLock); }

    /// Until one holder has kept it for that long, whatever the others do that take turns. Whoever
    /// does not mark the file counts as the same holder.
    static constexpr Waiting forOneHolder(std::chrono::milliseconds timeout) {
        return Waiting(Kind::forOneHolder, timeout);
    }

    /// The same for whoever can do without the lock: also only for a moment where a holder says
    /// that it has kept the lock for that long already, and never longer than `total` for all
    /// holders, since a hostile one can look like many.
    static constexpr Waiting briefly(std::chrono::milliseconds timeout,
                                     std::chrono::milliseconds total) {
        return Waiting(Kind::forOneHolder, timeout, total);
    }

    /// For nobody: there is one attempt.
    static constexpr Waiting once() { return forOneHolder({}); }

    bool isNever() const { return kind == Kind::never; }
    bool isWithoutEnd() const { return kind == Kind::forLock; }
    std::chrono::milliseconds timeout() const { return holderTimeout; }
    std::optional<std::chrono::milliseconds> total() const { return totalTimeout; }

private:
    enum class Kind { never, forLock, forOneHolder };

    explicit constexpr Waiting(Kind kind, std::chrono::milliseconds timeout = {},
                               std::optional<std::chrono::milliseconds> total = std::nullopt)
        : kind(kind)
        , holderTimeout(timeout)
        , totalTimeout(total) {}

    Kind kind;
    std::chrono::milliseconds holderTimeout;
    std::optional<std::chrono::milliseconds> totalTimeout;
};

/// What a file is to be like that has to be made.
struct NewFile {
    std::optional<gid_t> group = std::nullopt;
    std::string_view contents = {};
};

/// Opens and exclusively locks the regular file under this path, making it when it is missing: with
/// mode 0400, or with `groupFileMode` for a group. A new file appears already locked, with its
/// final group and mode and its contents, and the lock is on the file that stands there when the
/// call returns: a file that was removed meanwhile is not what its name means. A group's, whose
/// folder may have been put elsewhere, is for the caller to compare. `Existing::refused` yields
/// EEXIST when there is anything under the name. Whoever waits marks the file with its own process
/// id, for others who wait, for as long as it has the lock. One who waits for one holder and gives
/// up gets EWOULDBLOCK.
LockingOpen openAndLock(const foundation::os::PathAt& where, Existing existing, Waiting waiting,
                        const NewFile& newFile = {});

/// Opens the regular file under this path and shares its lock, without making the file or waiting.
///
/// This is how to ask whether a publisher lives: any number of processes may share the lock, so
/// they never take each other for a publisher, and a publisher that wants the lock exclusively
/// knows them from a holder.
LockingOpen openAndShareLock(const foundation::os::PathAt& where);

/// Opens what stands under this path for reading if somebody holds its lock; empty otherwise, with
/// errno set: 0 where nobody does.
foundation::os::FileDescriptor openIfHeld(const foundation::os::PathAt& where);

} // namespace agent::spf::endpointregistry
