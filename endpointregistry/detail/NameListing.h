#pragma once

#include "foundation/os/FilePlace.h"

#include <string>
#include <vector>

namespace agent::spf::endpointregistry {

/// The names in a folder that contain every one of `nameParts`, in the order in which the folder
/// lists them; none when there is no such folder. Throws std::runtime_error when it cannot be read.
std::vector<std::string> listNames(const foundation::os::FilePlace& folder,
                                   const std::vector<std::string>& nameParts);

} // namespace agent::spf::endpointregistry
