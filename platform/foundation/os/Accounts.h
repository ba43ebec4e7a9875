#pragma once

#include <optional>
#include <string>
#include <sys/types.h>

namespace foundation::os {

// Look-ups in the user and group databases, by the reentrant calls only, so that any thread may
// make them. Entries of more than 1 MiB read as missing. Nothing is remembered between calls.

/// The login name of a user; nothing when the database has none.
std::optional<std::string> findUserName(uid_t user);

/// The name of a group; nothing when the database has none.
std::optional<std::string> findGroupName(gid_t group);

/// The id of a group; nothing, with errno telling why, when the database has none (errno 0) or
/// cannot be asked.
std::optional<gid_t> findGroupId(const std::string& name);

} // namespace foundation::os
