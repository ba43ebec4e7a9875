#pragma once

#include "endpointregistry/detail/LockedDescriptor.h"
#include "endpointregistry/detail/OpenFolder.h"
#include "foundation/os/FilePlace.h"

#include <string>

namespace agent::spf::endpointregistry {

/// The right to clear away what a dead publisher left under one name.
///
/// While it is held, no publisher can take the file over and nobody else clears the same folder;
/// yet whoever asks about the file meanwhile still sees that its publisher is dead, because the
/// file's lock is only shared. That is why the folder, too, is locked: two that cleared one file
/// could otherwise remove the new one that a publisher made between them.
class AbandonedFile {
public:
    enum class Finding {
        /// A publisher holds the file, or it cannot be examined.
        inUse,
        /// No publisher, and nothing to clear up or no means to: the file is gone (none is made in
        /// order to find that out), or the folder's lock is not to be had; then the next to look
        /// clears up.
        nothingToClear,
        /// The publisher is dead, and this object holds the right to clear up.
        abandoned,
    };

    /// Examines a file in a folder that outlives this object; waits a moment for others that clear
    /// up.
    AbandonedFile(const std::string& name, const OpenFolder& folder);

    Finding finding() const { return found; }

    /// Removes the file. Only for an abandoned one, after all else of that name is gone: for as
    /// long as the file stands, the next to look clears up what a crash here leaves.
    void remove();

private:
    const OpenFolder& folder;
    foundation::os::FilePlace place;
    Finding found = Finding::nothingToClear;
    LockedDescriptor folderLock;
    LockedDescriptor fileLock;
};

} // namespace agent::spf::endpointregistry
