#pragma once

#include "sharedmemory/SegmentRecord.h"

#include <cstddef>
#include <optional>
#include <string>
#include <string_view>
#include <utility>

/// The bytes of a shared entry's file: a copy of its data, for the case that the table that its row
/// is in is lost.
///
///     offset 0    a mark of 8 bytes
///            8    16 bytes    the token of the base of that table
///           24    the length of the first data string, 64 bits in the machine's order
///           32    the first data string, directly followed by the second
///
/// The length of both strings together stands in the entry's name. Any member of the group may have
/// written anything there.
namespace agent::spf::endpointregistry::entrycopy {

using DataPair = std::pair<std::string, std::string>;

/// What all copies that one lookup reads may take together: no table holds more. A file can state
/// any size without having it.
inline constexpr std::size_t maxTotal = std::size_t{64} * 1024 * 1024;

/// The size of a copy of joined data of this length; nothing where no entry has that much.
std::optional<std::size_t> sizeFor(unsigned long length);

std::string contentsOf(const DataPair& data, const sharedmemory::SegmentToken& base);

struct Copy {
    sharedmemory::SegmentToken base{};
    DataPair data;
};

/// Nothing for bytes that are no copy.
std::optional<Copy> parse(std::string_view bytes);

} // namespace agent::spf::endpointregistry::entrycopy
