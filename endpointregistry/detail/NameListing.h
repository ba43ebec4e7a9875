#pragma once

#include "foundation/os/FilePlace.h"

#include <string>
#include <vector>

namespace agent::spf::endpointregistry {

/// The names in a folder that contain every one of `nameParts`, in the order in which the folder
/// lists them; none when there is no such folder. Throws std::runtime_error when it cannot be read.
std::vector<std::string> listNames(const foundation::os::FilePlace& folder,
                                   const std::vector<std::string>& nameParts);

/// Reports a folder of entries that cannot be opened or read: logs, and throws std::runtime_error.
[[noreturn]] void failToReadFolder(int error);

} // namespace agent::spf::endpointregistry
