#include "foundation/os/Renaming.h"

#include <cerrno>
#include <cstdio>

namespace foundation::os {

int renameWithoutReplacing(const PathAt& from, const PathAt& to) noexcept {
    return ::renameat2(from.folder, from.name.c_str(), to.folder, to.name.c_str(),
                       RENAME_NOREPLACE) == 0
               ? 0
               : errno;
}

} // namespace foundation::os
