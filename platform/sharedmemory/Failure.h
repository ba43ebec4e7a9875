#pragma once

#include "foundation/os/Group.h"

#include <optional>
#include <string>
#include <sys/types.h>

namespace agent::spf::sharedmemory {

/// Logs what failed, about which segment and why, and throws std::runtime_error.
[[noreturn]] void fail(const std::string& what, const std::string& segment, int error);

/// The id of a trustee, none for the empty one. Throws std::invalid_argument when there is no
/// such group, std::runtime_error when the group database cannot be asked.
std::optional<gid_t> groupOf(const foundation::os::Group& trustee);

} // namespace agent::spf::sharedmemory
