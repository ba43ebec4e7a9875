#pragma once

#include "endpointregistry/detail/NameListing.h"
#include "foundation/os/FileDescriptor.h"
#include "foundation/os/FileIdentity.h"
#include "foundation/os/PathAt.h"

#include <optional>
#include <string>
#include <utility>
#include <vector>

namespace agent::spf::endpointregistry {

/// A folder of the registry, held open: a listing and all that follows from it see one folder, and
/// its path is walked once. Who moves the private folder, its own user, takes what is published in
/// it out of sight, now or a moment before.
class OpenFolder {
public:
    OpenFolder(foundation::os::FileDescriptor folder, std::string path)
        : folder(std::move(folder))
        , ownPath(std::move(path)) {}

    /// The caller's private folder of this name; nothing when there is none. Throws
    /// std::runtime_error when it cannot be opened or the private base is not to be trusted.
    static std::optional<OpenFolder> findPrivate(const std::string& parent);

    /// The folder at this path, with a trailing "/", in a base that was examined just now; nothing
    /// when there is none. Throws std::runtime_error when it cannot be opened.
    static std::optional<OpenFolder> open(const std::string& path);

    /// The names in it that pass the test, in the order in which the folder lists them. What is
    /// made after the folder was opened may be missing from the first call, not from a later one.
    /// Throws std::runtime_error when it cannot be read.
    std::vector<std::string> names(const NameTest& isWanted) const;

    /// Puts the names in it to the test one after the other until one passes, and tells whether one
    /// did. The test itself must not read the folder through this object.
    bool anyName(const NameTest& isWanted) const;

    /// A file in the folder; valid for as long as this object lives.
    foundation::os::PathAt at(const std::string& name) const { return {folder.get(), name}; }

    std::optional<foundation::os::FileIdentity> identity() const {
        return foundation::os::identityOf(folder.get());
    }

    /// Where the folder was found, with a trailing "/".
    const std::string& path() const { return ownPath; }

protected:
    int descriptor() const { return folder.get(); }

private:
    /// Has the next reading begin at the first name.
    void rewind() const;

    foundation::os::FileDescriptor folder;
    std::string ownPath;
    mutable bool hasBeenRead = false;
};

} // namespace agent::spf::endpointregistry
