#include "foundation/os/GroupDirectory.h"

#include "foundation/os/AtomicFolder.h"
#include "foundation/os/FolderOpening.h"
#include "foundation/os/RetryOnInterrupt.h"

#include <algorithm>
#include <cerrno>
#include <climits>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace foundation::os {

namespace {

using Step = GroupDirectoryError::Step;

constexpr mode_t groupOnly = S_IRWXU | S_IRWXG;
constexpr mode_t everybody = groupOnly | S_IRWXO;

gid_t idOf(const Group& group) {
    if (const auto id = group.id()) {
        return *id;
    }
    throw GroupDirectoryError(Step::examine, "Failed to look up the group", group.name(), errno);
}

/// The directory as it is; empty, with errno set, when it cannot be opened.
FileDescriptor openExisting(const GroupDirectoryPath& path, const std::string& text) {
    FileDescriptor directory = openThroughNoLink(text, O_RDONLY | O_DIRECTORY);
    // Links on the way to the base are the administrator's, and not every kernel and filter knows
    // the call.
    return directory || errno == ENOENT ? std::move(directory)
                                        : openFolderBelow(path.base, path.levels);
}

/// The base itself may be a link.
FileDescriptor openBase(const std::string& base) {
    FileDescriptor opened(
        retryOnInterrupt([&] { return ::open(base.c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC); }));
    if (!opened) {
        throw GroupDirectoryError(Step::open, "Failed to open the directory", base, errno);
    }
    return opened;
}

struct stat statusOf(int directory, const char* name, const std::string& path) {
    struct stat status {};
    if (::fstatat(directory, name, &status, *name == '\0' ? AT_EMPTY_PATH : 0) != 0) {
        throw GroupDirectoryError(Step::examine, "Failed to stat the path", path, errno);
    }
    return status;
}

/// Whether a parent with this status can give its own group to what a stranger makes in it. Whether
/// it does is up to its set-group-id bit and to how its file system is mounted.
bool mayHandDown(const struct stat& parent, gid_t group) {
    return parent.st_gid == group;
}

bool isMemberOrRoot(uid_t user, const Group& group, const std::string& path) {
    const auto isTrusted = group.trusts(user);
    if (!isTrusted) {
        throw GroupDirectoryError(Step::examine, "Failed to ask for the members of the group of",
                                  path, errno);
    }
    return *isTrusted;
}

bool belongsTo(const Group& group, int directory, const struct stat& status,
               const std::string& path) {
    if (!isUsableByGroup(status, idOf(group))) {
        return false;
    }
    // Root's is trusted wherever it is, so that nothing above it needs to be looked at.
    constexpr uid_t root = 0;
    return status.st_uid == root || !mayHandDown(statusOf(directory, "..", path), idOf(group)) ||
           isMemberOrRoot(status.st_uid, group, path);
}

/// Which directory it is, provided that it belongs to the group.
FileIdentity examine(int directory, const Group& group, const std::string& path) {
    const struct stat status = statusOf(directory, "", path);
    if (!belongsTo(group, directory, status, path) || carriesAccessControlList(directory)) {
        throw GroupDirectoryError(Step::examine, "The directory does not belong to its group", path,
                                  EPERM);
    }
    return FileIdentity(status);
}

/// The directory in this place, made by `create` when it is missing, which returns 0 or an errno
/// value.
template<typename Create>
FileDescriptor openOrCreateLevel(const PathAt& where, const std::string& path, Create create) {
    for (;;) {
        FileDescriptor directory = openFolder(where);
        if (directory) {
            return directory;
        }
        if (errno != ENOENT) {
            throw GroupDirectoryError(Step::open, "Failed to open the directory", path, errno);
        }
        const int error = create();
        if (error != 0 && error != EEXIST) {
            throw GroupDirectoryError(Step::create, "Failed to create the directory", path, error);
        }
    }
}

/// The group for a new level above the group's own: another one where this process has one, since
/// below a parent of the group's the database would be asked for good. Nothing for the usual one.
std::optional<gid_t> groupForLevelAbove(gid_t group) {
    if (::getegid() != group) {
        return std::nullopt;
    }
    if (::getgid() != group) {
        return ::getgid();
    }
    std::vector<gid_t> others(NGROUPS_MAX);
    const int count = ::getgroups(NGROUPS_MAX, others.data());
    others.resize(static_cast<std::size_t>(std::max(count, 0)));
    const auto other = std::ranges::find_if(others, [group](gid_t one) { return one != group; });
    return other == others.end() ? std::nullopt : std::optional(*other);
}

/// A level that everybody may pass through and add to.
FileDescriptor openOrCreatePublicLevel(const PathAt& where, gid_t group, const std::string& path) {
    FileDescriptor directory = openOrCreateLevel(where, path, [&] {
        return createFolderAtomically(where, everybody, groupForLevelAbove(group));
    });
    const mode_t mode = statusOf(directory.get(), "", path).st_mode;
    const bool isPublic = (mode & everybody) == everybody;
    if (!isPublic && ::fchmod(directory.get(), mode | everybody) != 0) {
        throw GroupDirectoryError(Step::create, "Failed to make the directory public", path, errno);
    }
    return directory;
}

/// Makes the group's own level. The kernel refuses to give it to a group that this process is not
/// in, whatever the user database says.
int createOwnLevel(const PathAt& where, const Group& group, const std::string& path) {
    // Below a parent that may hand its group down, other members will ask who made it.
    const bool isAskedFor = mayHandDown(statusOf(where.folder, "", path), idOf(group));
    if (isAskedFor && !isMemberOrRoot(::geteuid(), group, path)) {
        return EPERM;
    }
    return createFolderAtomically(where, groupOnly, idOf(group));
}

} // namespace

std::string GroupDirectoryPath::text() const {
    std::size_t size = base.size() + 1;
    for (const std::string& level : levels) {
        size += level.size() + 1;
    }
    std::string path;
    path.reserve(size);
    path.append(base).append(1, '/');
    for (const std::string& level : levels) {
        path.append(level).append(1, '/');
    }
    return path;
}

GroupDirectory::GroupDirectory(FileDescriptor opened, std::string path, const Group& group)
    : directory(std::move(opened))
    , ownPath(std::move(path))
    , groupId(idOf(group))
    , ownIdentity(examine(directory.get(), group, ownPath)) {
}

std::optional<GroupDirectory> GroupDirectory::tryOpen(const GroupDirectoryPath& path,
                                                      const Group& group) {
    std::string text = path.text();
    FileDescriptor directory = openExisting(path, text);
    if (directory) {
        return GroupDirectory(std::move(directory), std::move(text), group);
    }
    if (errno == ENOENT) {
        return std::nullopt;
    }
    throw GroupDirectoryError(Step::open, "Failed to open the directory", text, errno);
}

GroupDirectory GroupDirectory::openOrCreate(const GroupDirectoryPath& path, const Group& group) {
    const gid_t id = idOf(group); // Before anything is made.
    FileDescriptor above = openBase(path.base);
    std::string here = path.base + "/";
    for (std::size_t level = 0; level + 1 < path.levels.size(); ++level) {
        here += path.levels[level] + "/";
        above = openOrCreatePublicLevel({above.get(), path.levels[level]}, id, here);
    }
    const PathAt own(above.get(), path.levels.back());
    here += own.name + "/";
    return {openOrCreateLevel(own, here, [&] { return createOwnLevel(own, group, here); }), here,
            group};
}

bool isUsableByGroup(const struct stat& status, gid_t group) {
    return status.st_gid == group && (status.st_mode & S_IRWXG) == S_IRWXG &&
           (status.st_mode & S_IWOTH) == 0;
}

} // namespace foundation::os
