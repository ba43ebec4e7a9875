#pragma once

#include "foundation/os/FileDescriptor.h"
#include "foundation/os/FileIdentity.h"
#include "foundation/os/PathAt.h"

#include <functional>
#include <optional>
#include <sys/types.h>

namespace foundation::os {

/// A new file, or why there is none.
struct AtomicFile {
    FileDescriptor descriptor;
    /// 0, or the errno value: EEXIST when the name is taken.
    int error = 0;
    /// Which file it is; nothing when there is none.
    std::optional<FileIdentity> identity = std::nullopt;
};

/// Makes a file that appears under its path in one step, with exactly this mode and as `prepare`
/// left it.
///
/// `prepare` gets the descriptor (readable and writable) of an empty file that has no name yet, or
/// one that nobody looks for, and returns 0 or an errno value, which ends the attempt. It may be
/// called more than once, each time with a new file, the one before being gone. Whoever opens
/// the path sees a finished file; what stands there already is never touched. A crash at any
/// moment leaves the file either finished or absent.
///
/// Where neither the kernel nor /proc lets an unnamed file be named, the file is made under a
/// hidden name (".nascent-", random digits, and backwards the name it is to get) in the same folder
/// first. Those that a crash left there are removed by the next call that needs the detour.
AtomicFile createFileAtomically(const PathAt& where, mode_t mode,
                                const std::function<int(int descriptor)>& prepare);

} // namespace foundation::os
