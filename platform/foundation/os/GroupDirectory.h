#pragma once

#include "foundation/os/FileDescriptor.h"
#include "foundation/os/FileIdentity.h"
#include "foundation/os/Group.h"

#include <optional>
#include <stdexcept>
#include <string>
#include <sys/types.h>
#include <vector>

namespace foundation::os {

/// Where a group's directory is: some levels below a directory of the administrator's, which may
/// itself be reached through links. Only the last level is the group's; the others are open to all.
struct GroupDirectoryPath {
    std::string base;
    std::vector<std::string> levels;

    /// With a trailing "/".
    std::string text() const;
};

/// A group's directory cannot be used. what() says what failed and where.
class GroupDirectoryError : public std::runtime_error {
public:
    enum class Step { open, create, examine };

    GroupDirectoryError(Step step, const std::string& what, const std::string& path, int error)
        : std::runtime_error(what + ": <" + path + ">")
        , failedStep(step)
        , errorNumber(error) {}

    Step step() const noexcept { return failedStep; }
    /// The errno value.
    int error() const noexcept { return errorNumber; }

private:
    Step failedStep;
    int errorNumber;
};

/// A directory that the members of a group share, held open: whatever is in it, a member has put
/// there. It is the one thing that all that is shared with a group takes its trust from.
///
/// Its permissions prove it, since nobody outside the group can bring them about: it has the
/// group's id, which only a member can give to a directory, the group may do everything in it, and
/// others may not write to it. Neither the user database nor the user who made it is asked, so it
/// stays good when that user leaves the group or the database cannot be reached. The one other way
/// to a group's id is a parent that hands its own down; below a parent that has the group's id, the
/// directory's owner must be root or a member, which the database decides. What nobody can tell is
/// where a directory was made: a stranger who may write to another directory that hands down the
/// group's id, on the same file system, can make one there and move it here. Where the group has
/// such directories, an administrator makes this one beforehand.
///
/// The levels above are open to all, so anybody may put another directory under the same path.
/// Hence the descriptor: what was examined is what is used.
class GroupDirectory {
public:
    // Both throw GroupDirectoryError when the directory cannot be opened or does not belong to the
    // group, or when the group cannot be looked up.

    /// The directory as it is; nothing when there is none, whatever the group.
    static std::optional<GroupDirectory> tryOpen(const GroupDirectoryPath& path,
                                                 const Group& group);

    /// The directory, made with all levels that are missing, each of which appears with its final
    /// group and mode; the levels above it that this user has made are opened to everybody again.
    /// The base must be there.
    static GroupDirectory openOrCreate(const GroupDirectoryPath& path, const Group& group);

    int get() const noexcept { return directory.get(); }
    /// Where it was found, with a trailing "/".
    const std::string& path() const noexcept { return ownPath; }
    gid_t group() const noexcept { return groupId; }
    const FileIdentity& identity() const noexcept { return ownIdentity; }

    /// Gives up the descriptor, for an owner that goes on with it.
    FileDescriptor takeDescriptor() noexcept { return std::move(directory); }

private:
    GroupDirectory(FileDescriptor opened, std::string path, const Group& group);

    FileDescriptor directory;
    std::string ownPath;
    gid_t groupId;
    FileIdentity ownIdentity;
};

/// Whether this is the status of a file in such a directory that every member may use, and that
/// nobody else may change: the owner may have fewer permissions than the group.
bool isUsableByGroup(const struct stat& status, gid_t group);

} // namespace foundation::os
