#pragma once

#include "endpointregistry/detail/OpenFolder.h"
#include "foundation/os/FileIdentity.h"
#include "foundation/os/Group.h"
#include "foundation/os/GroupDirectory.h"

#include <optional>
#include <string>
#include <sys/types.h>

namespace agent::spf::endpointregistry {

/// A folder of the registry that the members of a group share, held open.
///
/// `LockedFile::getParentPath` claims such a folder for its caller, so that only one member could
/// ever use it. Here a group's directory is used as it is, whichever member made it, and what
/// exists and is none is an error, and no place to put data.
class GroupFolder : public OpenFolder {
public:
    // All throw std::runtime_error when the folder cannot be opened or does not belong to the
    // group, or when the shared folder of this machine is missing; std::invalid_argument when there
    // is no such group.

    /// The folder as it is; nothing when there is none, whatever the group.
    static std::optional<GroupFolder> tryOpen(const std::string& parent,
                                              const foundation::os::Group& trustee);

    /// The folder as it is, made as `openOrRestore` does when there is none.
    static GroupFolder openOrCreate(const std::string& parent,
                                    const foundation::os::Group& trustee);

    /// The folder, made with all levels that are missing; those that this user has made are opened
    /// to everybody again.
    static GroupFolder openOrRestore(const std::string& parent,
                                     const foundation::os::Group& trustee);

    gid_t group() const { return ownGroup; }

    /// Whether the path still leads to this folder. Whoever may write to the folders above can put
    /// it elsewhere.
    bool isStillNamed() const;

private:
    explicit GroupFolder(foundation::os::GroupDirectory directory);

    gid_t ownGroup;
    foundation::os::FileIdentity identity;
};

} // namespace agent::spf::endpointregistry
