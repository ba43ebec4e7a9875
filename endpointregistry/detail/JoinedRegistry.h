#pragma once

#include "endpointregistry/LockedFile.h"
#include "endpointregistry/detail/OpenFolder.h"
#include "foundation/os/Group.h"

#include <optional>
#include <string>

/// The locked files of records and arrays.
///
/// As the functions of `LockedFile` of the same names, but what is shared with a group is joined as
/// `JoinedFolder` says, files included: whichever member of the group made a file, every other one
/// may lock and remove it. With an empty trustee nothing differs. They also throw
/// std::runtime_error when a folder or file exists that does not belong to the group.
namespace agent::spf::endpointregistry::joined {

LockedFile createAndTryLock(const std::string& name, const std::string& parent,
                            const foundation::os::Group& trustee);
LockedFile getLock(const std::string& name, const std::string& parent,
                   const foundation::os::Group& trustee);
LockedFile tryLock(const std::string& name, const std::string& parent,
                   const foundation::os::Group& trustee);

/// The folder of a trustee that the files are in; nothing when there is none.
std::optional<OpenFolder> findFolder(const std::string& parent,
                                     const foundation::os::Group& trustee);

} // namespace agent::spf::endpointregistry::joined
