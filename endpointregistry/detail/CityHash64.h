#pragma once

#include <cstdint>
#include <string_view>

namespace agent::spf::endpointregistry {

/// CityHash64 as its release 1.0 defined it; later releases give other values. The hash is part of
/// the entry names' format: it must never change.
std::uint64_t cityHash64(std::string_view text);

} // namespace agent::spf::endpointregistry
