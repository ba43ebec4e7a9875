#pragma once

#include "endpointregistry/LockedFile.h"
#include "endpointregistry/detail/LockingOpen.h"
#include "endpointregistry/detail/OpenFolder.h"
#include "foundation/os/Group.h"

#include <optional>
#include <string>
#include <string_view>
#include <sys/types.h>

/// The locked files of records and arrays.
///
/// As the functions of `LockedFile` of the same names, but what is shared with a group is its
/// members' in common, as `GroupFolder` says: whichever of them made a file, every other one may
/// lock and remove it. With an empty trustee nothing differs. They also throw
/// std::runtime_error when a folder or file exists that does not belong to the group.
namespace agent::spf::endpointregistry::groupfiles {

/// A new file of a group's appears with these contents.
LockedFile createAndTryLock(const std::string& name, const std::string& parent,
                            const foundation::os::Group& trustee, std::string_view contents = {});
LockedFile getLock(const std::string& name, const std::string& parent,
                   const foundation::os::Group& trustee);

/// A lock, or who keeps it.
struct LockOrHolder {
    /// Not locked where its holder did not let go.
    LockedFile lock;
    /// That holder's process id, as its own process namespace numbers it; 0 when it is locked, or
    /// when the holder has not said who it is. For messages only: any user of the file can forge
    /// it.
    pid_t holder;
};

/// As `getLock`, but waits as it is told. Holders are told apart where they have waited for the
/// lock themselves, by this function or `getLock`.
LockOrHolder getLockWithin(const std::string& name, const std::string& parent,
                           const foundation::os::Group& trustee, Waiting waiting);

LockedFile tryLock(const std::string& name, const std::string& parent,
                   const foundation::os::Group& trustee);

/// The folder of a trustee that the files are in; nothing when there is none.
std::optional<OpenFolder> tryOpenFolder(const std::string& parent,
                                        const foundation::os::Group& trustee);

} // namespace agent::spf::endpointregistry::groupfiles
