#pragma once

#include <string>
#include <utility>

/// The bytes of an entry's data segment, which publishers and readers of all builds share:
///
///     offset 0       ready: bit 0 is set once all below is written
///            8       the length of the first data string, 64 bits in the machine's order
///           16       the first data string, directly followed by the second
///           16 + L   one byte that is never used
///
/// L, the length of both strings together, stands in the entry's name.
namespace agent::spf::endpointregistry::entrysegment {

/// The size of a segment for joined data of this length. Where a name states a length that no size
/// can hold, it is the largest size there is, which no segment has.
std::size_t sizeFor(unsigned long length);

/// Writes the data into a new segment and marks it ready.
void publish(void* segment, const std::pair<std::string, std::string>& data);

/// Marks the segment not ready, for readers that are attached.
void withdraw(void* segment);

/// The data of a segment for joined data of this length; two empty strings when it is not ready.
/// Throws std::out_of_range when the first string is said to be longer than both.
std::pair<std::string, std::string> read(void* segment, unsigned long length);

} // namespace agent::spf::endpointregistry::entrysegment
