#pragma once

#include <string>

namespace agent::spf::endpointregistry {

/// Where this platform keeps its users' folders, whether or not there is such a folder.
std::string usersFolder();

/// The shared folder below a users' folder.
inline std::string sharedFolderIn(const std::string& users) {
    return users + "/Shared";
}

} // namespace agent::spf::endpointregistry
