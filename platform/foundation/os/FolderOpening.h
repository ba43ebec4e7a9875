#pragma once

#include "foundation/os/FileDescriptor.h"
#include "foundation/os/PathAt.h"

#include <string>
#include <vector>

namespace foundation::os {

/// Opens the folder under a path, and no link to one; empty, with errno set, when it cannot be
/// opened.
FileDescriptor openFolder(const PathAt& where);

/// Opens a file or folder in one step, with no link on the whole way to it; empty, with errno set,
/// when it cannot be opened. Kernels before 5.6, and filters that do not know the call, refuse
/// every attempt (ENOSYS, EPERM).
FileDescriptor openThroughNoLink(const PathAt& where, int flags);

/// Opens a folder some levels below another, through no link on the way down; empty, with errno
/// set, when it cannot be opened. The upper folder itself may be reached through links.
FileDescriptor openFolderBelow(const PathAt& top, const std::vector<std::string>& levels);

} // namespace foundation::os
