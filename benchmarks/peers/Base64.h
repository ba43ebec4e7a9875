#pragma once

#include <string>
#include <string_view>

namespace benchmarks::peers {

std::string encodeBase64(std::string_view bytes);

/// Of valid text only.
std::string decodeBase64(std::string_view text);

} // namespace benchmarks::peers
