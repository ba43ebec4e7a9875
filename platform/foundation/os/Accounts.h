#pragma once

#include <optional>
#include <set>
#include <string>
#include <sys/types.h>

namespace foundation::os {

// Look-ups in the user and group databases, by the reentrant calls only, so that any thread may
// make them. Entries of more than 1 MiB cannot be read (ERANGE). Nothing is remembered between
// calls.

/// The login name of a user; nothing when the database has none.
std::optional<std::string> findUserName(uid_t user);

/// The name of a group; nothing when the database has none.
std::optional<std::string> findGroupName(gid_t group);

/// The id of a group; nothing, with errno telling why, when the database has none (errno 0) or
/// cannot be asked.
std::optional<gid_t> findGroupId(const std::string& name);

/// Whether findGroupId, which gave nothing, has left an errno value that says there is no such
/// group, and not that the database could not be asked.
bool saysNoSuchEntry(int error);

/// Whether the user is a member of the group, as primary group or as listed in the database;
/// nothing, with errno set, when that cannot be asked.
std::optional<bool> isMember(uid_t user, gid_t group);

/// Whether the calling process is in the group, as the kernel sees it: its effective group or a
/// supplementary one. One that cannot be asked about is.
bool isInGroup(gid_t group);

/// The names of the calling process's supplementary groups, without those that have none; nothing,
/// with errno set, when the system does not tell.
std::optional<std::set<std::string>> findOwnGroupNames();

} // namespace foundation::os
