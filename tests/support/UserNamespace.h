#pragma once

#include <sys/types.h>

namespace tests {

/// In a user namespace that the calling process has just made: lets it be who it was outside, and
/// nobody else. Throws std::system_error when the kernel does not allow it.
void mapOnly(uid_t user, gid_t group);

} // namespace tests
