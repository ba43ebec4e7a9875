#pragma once

namespace agent::spf::sharedmemory {

/// Removes from the kernel what other members of a group have removed of the caller's segments, and
/// what makers of this user that were killed have left unfinished. Nobody else may.
void removeSysVLeftovers();

} // namespace agent::spf::sharedmemory
