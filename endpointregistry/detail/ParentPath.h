#pragma once

#include <string>

namespace agent::spf::endpointregistry {

/// The caller's private base folder with a trailing "/": examined, and made if it was missing.
/// Throws std::runtime_error when it is not to be trusted.
std::string privateBasePath();

/// As `LockedFile::getParentPath`.
std::string parentPathOf(const std::string& parent, const std::string& trustee, bool create);

} // namespace agent::spf::endpointregistry
