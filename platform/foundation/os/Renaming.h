#pragma once

#include "foundation/os/PathAt.h"

namespace foundation::os {

/// Renames a file or folder where nothing bears the new name, in one step. Returns 0 or the errno
/// value: EEXIST when the name is taken.
int renameWithoutReplacing(const PathAt& from, const PathAt& to) noexcept;

} // namespace foundation::os
