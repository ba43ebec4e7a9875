#pragma once

#include <cstddef>

namespace tests {

/// Whether this process can have a /dev/shm of its own: root may, and who can make a user namespace
/// of its own.
bool canLimitSharedMemory();

/// Gives the calling process an empty /dev/shm of its own that holds this many bytes, in whole
/// pages. Call it in a child; it throws std::system_error when the system does not allow it.
void limitSharedMemoryTo(std::size_t bytes);

} // namespace tests
