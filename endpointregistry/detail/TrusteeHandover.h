#pragma once

#include <string>

namespace agent::spf::endpointregistry {

/// As `setTrustee` for an open file; `path` is only for the log. What somebody puts under the path
/// meanwhile stays as it is.
void setTrusteeOfOpenFile(int descriptor, const std::string& path, const std::string& group);

} // namespace agent::spf::endpointregistry
