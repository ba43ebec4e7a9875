#pragma once

#include <string>

namespace foundation::paths {

/// Where this platform keeps its users' folders, whether or not there is such a folder.
std::string usersFolder();

/// The folder below it that all users may share things in; an administrator makes it.
inline std::string sharedFolder() {
    return usersFolder() + "/Shared";
}

/// The folder of the shared one that holds everything of ours.
inline constexpr const char* sharedTopLevel = "Corvantis";

} // namespace foundation::paths
