#pragma once

#include "foundation/os/PathAt.h"

#include <optional>
#include <sys/types.h>

namespace foundation::os {

/// Makes a folder that appears under its path in one step, with exactly this mode, given to `group`
/// where one is named, and with no access control list, whatever its parent hands down. Returns 0
/// or the errno value: EEXIST when anything stands there, which is never touched.
///
/// It is made under a hidden name (".nascent-", random digits, and backwards the name it is to get)
/// beside its place, and renamed without replacing. What a crash leaves under such a name is
/// removed by the next call of the same user beside it.
///
/// Where others may write to the parent, they can put a folder of theirs in the new one's place at
/// any moment: what is used afterwards must be examined after it was opened.
int createFolderAtomically(const PathAt& where, mode_t mode, std::optional<gid_t> group);

/// Whether an open file carries an access control list beyond its mode. One that cannot be asked
/// about counts as carrying one.
bool carriesAccessControlList(int descriptor);

} // namespace foundation::os
