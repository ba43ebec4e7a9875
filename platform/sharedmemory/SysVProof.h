#pragma once

#include <cstddef>
#include <optional>
#include <string>

/// What stands in a segment of System V shared memory behind the caller's bytes, to the segment's
/// end. The kernel's key is only a hash of 32 bits, and any program may use it.
///
///     the identity, as many bytes as it has
///     their number, 64 bits in the machine's order
///     a mark of 8 bytes
///     one byte: 1 once the segment was removed by somebody who may not remove it from the kernel
namespace agent::spf::sharedmemory::sysvproof {

/// How many bytes it takes.
std::size_t sizeFor(const std::string& identity);

/// Writes it into a new segment of `size` bytes, which begins at `segment`.
void write(char* segment, std::size_t size, const std::string& identity);

/// How many of the `size` bytes are the caller's; nothing for a segment of another identity.
std::optional<std::size_t> callersSize(const char* segment, std::size_t size,
                                       const std::string& identity);

/// Whether the segment has a proof, of whatever identity.
bool isMarked(const char* segment, std::size_t size);

/// Whether the place of the proof is blank, as a maker that was killed leaves it.
bool isBlank(const char* segment, std::size_t size);

/// For a segment that has a proof: whether it was removed, and marking it so. Other processes may
/// do the same at any time.
bool isRemoved(const char* segment, std::size_t size);
void markRemoved(char* segment, std::size_t size);

} // namespace agent::spf::sharedmemory::sysvproof
