#pragma once

#include <string>

namespace agent::spf::endpointregistry {

/// As `LockedFile::getParentPath`.
std::string parentPathOf(const std::string& parent, const std::string& trustee, bool create);

} // namespace agent::spf::endpointregistry
