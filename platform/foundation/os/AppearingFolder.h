#pragma once

#include "foundation/os/FileDescriptor.h"
#include "foundation/os/FilePlace.h"

#include <optional>
#include <string>
#include <sys/types.h>
#include <vector>

namespace foundation::os {

/// Makes a folder that appears in its place in one step, with exactly this mode, given to `group`
/// where one is named, and with no access control list, whatever its parent hands down. Returns 0
/// or the errno value: EEXIST when anything stands there, which is never touched.
///
/// It is made under a hidden name (".nascent-" and random digits) beside its place, and renamed
/// without replacing. What a crash leaves under such a name is removed by the next call of the same
/// user beside it.
///
/// Where others may write to the parent, they can put a folder of theirs in the new one's place at
/// any moment: what is used afterwards must be examined after it was opened.
int createAppearingFolder(const FilePlace& place, mode_t mode, std::optional<gid_t> group);

/// Opens the folder in a place, and no link to one; empty, with errno set, when it cannot be
/// opened.
FileDescriptor openFolder(const FilePlace& place);

/// Opens a file or folder in one step, with no link on the whole way to it; empty, with errno set,
/// when it cannot be opened. Kernels before 5.6, and filters that do not know the call, refuse
/// every attempt (ENOSYS, EPERM).
FileDescriptor openThroughNoLink(const FilePlace& place, int flags);

/// Opens a folder some levels below another, through no link on the way down; empty, with errno
/// set, when it cannot be opened. The upper folder itself may be reached through links.
FileDescriptor openFolderBelow(const FilePlace& top, const std::vector<std::string>& levels);

/// Whether an open file carries an access control list beyond its mode. One that cannot be asked
/// about counts as carrying one.
bool carriesAccessControlList(int descriptor);

} // namespace foundation::os
