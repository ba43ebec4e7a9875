#pragma once

#include "foundation/os/FilePlace.h"

namespace foundation::os {

/// Renames a file or folder where nothing bears the new name, in one step. Returns 0 or the errno
/// value: EEXIST when the name is taken.
int renameWithoutReplacing(const FilePlace& from, const FilePlace& to) noexcept;

} // namespace foundation::os
