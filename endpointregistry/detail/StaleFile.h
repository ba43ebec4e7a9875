#pragma once

#include "endpointregistry/detail/LockedDescriptor.h"
#include "endpointregistry/detail/OpenFolder.h"
#include "foundation/os/PathAt.h"

#include <chrono>
#include <string>

namespace agent::spf::endpointregistry {

/// Throws std::runtime_error, and logs which file, where its lock could not be asked for because no
/// descriptor or memory was left: that says nothing about its publisher.
void failIfNotAsked(int error, const OpenFolder& folder, const std::string& name);

/// The right to clear away what a dead publisher left under one name.
///
/// While it is held, nobody can lock the file as its own and nobody else clears the same folder;
/// yet whoever asks about the file meanwhile still sees that its publisher is dead, because the
/// file's lock is only shared. That is why the folder, too, is locked: two that cleared one file
/// could otherwise remove the new one that a publisher made between them.
class StaleFile {
public:
    enum class Finding {
        /// A publisher holds the file, or it cannot be examined.
        inUse,
        /// The file is gone; none is made in order to find that out.
        nothingToClear,
        /// The publisher is dead, but the folder's lock was not to be had; the next to look clears
        /// up.
        busy,
        /// The publisher is dead, and this object holds the right to clear up.
        stale,
    };

    /// How long others that clear up are waited for; they are done in a moment.
    static constexpr std::chrono::milliseconds defaultTimeout{20};

    /// Examines a file in a folder that outlives this object. Throws as `failIfNotAsked` does.
    StaleFile(const std::string& name, const OpenFolder& folder,
              std::chrono::milliseconds timeout = defaultTimeout);

    Finding finding() const { return found; }

    /// Removes the file. Only for a stale one, after all else of that name is gone: for as
    /// long as the file stands, the next to look clears up what a crash here leaves.
    void remove();

private:
    bool examine();

    const OpenFolder& folder;
    foundation::os::PathAt where;
    Finding found = Finding::nothingToClear;
    LockedDescriptor folderLock;
    LockedDescriptor fileLock;
};

} // namespace agent::spf::endpointregistry
