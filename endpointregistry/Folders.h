#pragma once

#include <string>

#pragma GCC visibility push(default)

/// The folders of the registry, their owners and permissions.
///
/// Paths are UTF-8. All functions may be called from any thread and hold no state. A link in the
/// place of the file or folder is not followed and counts as failure. What fails is
/// logged with path and errno, then thrown as std::runtime_error unless said otherwise; what an
/// earlier step did is not undone.
namespace agent::spf::endpointregistry {

/// Makes one folder level with mode 0700, less the process's umask. An existing entry of that
/// name, of whatever kind, is success. Throws when the folder cannot be made.
void createFolder(const std::string& path);

/// Lets everybody read, write and enter `path`; other mode bits stay. Where nothing is to change
/// nothing is called, so it succeeds on another user's folder that is public already. Throws when
/// the mode cannot be read or changed.
void makePublic(const std::string& path);

/// Hands `path` to the calling user and to `group`, and lets the group read, write and enter it.
///
/// Throws std::invalid_argument when there is no such group; std::runtime_error when ownership or
/// mode cannot be changed, as on everything that another user owns.
void setTrustee(const std::string& path, const std::string& group);

/// The folder that holds the users' home folders; empty when the system has none.
std::string getUsersPath();

/// The folder below which users share: `getUsersPath()` and "/Shared", whether it exists or not.
/// Throws when there is no users folder.
std::string getSharedFolderPath();

} // namespace agent::spf::endpointregistry

#pragma GCC visibility pop
