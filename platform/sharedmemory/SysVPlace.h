#pragma once

#include "foundation/os/Group.h"
#include "sharedmemory/SegmentName.h"
#include "sharedmemory/SysVKernel.h"

#include <array>
#include <cstddef>
#include <optional>
#include <string>
#include <sys/types.h>

namespace agent::spf::sharedmemory {

/// Mode of a segment that is being made: the execute bits grant nothing for shared memory, and no
/// other program sets them. Its maker gives it its final mode and group in one step.
inline constexpr mode_t modeWhileMade = 0711;

/// Its final modes.
inline constexpr mode_t modeForUser = 0600;
inline constexpr mode_t modeForGroup = 0660;

/// Whether the process that is making such a segment is still at it.
bool makerLives(const sysv::Status& status);

/// Where the System V segment of one name and trustee, which outlives this object, is looked for.
///
/// A key has 32 bits, so other names and other programs may have taken it: each identity has a
/// row of keys, which everybody tries in the same order.
class SysVPlace {
public:
    /// Throws as `groupOf` does.
    SysVPlace(const std::string& name, const foundation::os::Group& trustee);
    SysVPlace(const std::string& name, foundation::os::Group&& trustee) = delete;

    enum class Standing {
        /// Nothing has the key.
        absent,
        /// Somebody else's, or no longer to be found.
        foreign,
        /// Somebody who may make segments for this place is making one under the key.
        beingMade,
        /// As it should be, but closed to this process, which has left the group that its user is a
        /// member of. Making another segment would be making one that nobody else looks for.
        closed,
        /// The segment of this identity.
        ours,
        /// One that was, and that nobody finds any more.
        removed,
    };

    struct Finding {
        Standing standing = Standing::absent;
        int id = -1;
        sysv::Status status{};
        sysv::Attachment attachment;
        std::size_t callersSize = 0;
    };

    /// What has one of the keys now. Throws std::runtime_error when that cannot be told.
    Finding examine(key_t key) const;

    /// Whether the calling user is one whose segments others will use here; the rest must not make
    /// any.
    bool admitsCaller() const { return trustsCreator(user); }

    const std::array<key_t, segmentKeyCount>& keys() const { return ownKeys; }
    const std::string& name() const { return ownName; }
    const std::string& identity() const { return ownIdentity; }
    uid_t caller() const { return user; }
    std::optional<gid_t> group() const { return ownGroup; }
    mode_t mode() const;

private:
    bool trustsCreator(uid_t creator) const;
    bool isFinished(const sysv::Status& status) const;

    std::string ownName;
    const foundation::os::Group& trustee;
    uid_t user;
    std::optional<gid_t> ownGroup;
    std::string ownIdentity;
    std::array<key_t, segmentKeyCount> ownKeys;
};

} // namespace agent::spf::sharedmemory
