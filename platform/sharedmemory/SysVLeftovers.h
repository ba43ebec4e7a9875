#pragma once

#include <sys/types.h>

namespace agent::spf::sharedmemory {

/// Removes from the kernel what other members of a group have removed of this user's segments, and
/// what makers of this user that were killed have left unfinished. Nobody else may.
void removeSysVLeftovers(uid_t user);

} // namespace agent::spf::sharedmemory
