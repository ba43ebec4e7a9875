#pragma once

#include <string>
#include <string_view>
#include <utility>

/// The bytes of an entry's data segment, which publishers and readers share:
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

/// The bytes of a segment of this data, ready.
std::string contentsOf(const std::pair<std::string, std::string>& data);

/// What is written over a segment's first byte when its entry is withdrawn, for readers that have
/// opened it by then.
inline constexpr std::string_view notReady("\0", 1);

/// The data in a copy of a segment for joined data of this length; two empty strings when it was
/// not ready. Throws std::out_of_range when the first string is said to be longer than both.
///
/// A copy may be made in any order, so that its ready byte proves nothing about the bytes around
/// it. It need not: a segment appears filled and ready, and all that ever changes is that it stops
/// being ready.
std::pair<std::string, std::string> read(const std::string& copy, unsigned long length);

} // namespace agent::spf::endpointregistry::entrysegment
