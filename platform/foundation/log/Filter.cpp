#include "foundation/log/Filter.h"

#include "foundation/log/Severities.h"

#include <limits>
#include <sstream>
#include <stdexcept>

namespace foundation::log {

namespace {

std::uint32_t maskOfLevel(const std::string& level) {
    if (level == "all") {
        return std::numeric_limits<std::uint32_t>::max();
    }
    if (level == "none") {
        return 0;
    }
    for (const auto& [name, value] : severityNames) {
        const auto bit = static_cast<std::uint32_t>(value);
        if (level == name || level == std::to_string(bit)) {
            // The bit itself and all above it: the higher the graver.
            return ~(bit - 1);
        }
    }
    throw std::invalid_argument("Unknown log level: " + level);
}

} // namespace

Filter::Filter(const std::string& pairs) {
    std::istringstream rest(pairs);
    for (std::string pair; std::getline(rest, pair, ';');) {
        if (pair.empty()) {
            continue;
        }
        const auto equals = pair.rfind('=');
        if (equals == std::string::npos || equals == 0) {
            throw std::invalid_argument("Not a channel=level pair: " + pair);
        }
        masks[pair.substr(0, equals)] = maskOfLevel(pair.substr(equals + 1));
    }
}

std::uint32_t Filter::maskOf(const std::string& channel) const {
    const auto found = masks.find(channel);
    return found == masks.end() ? 0 : found->second;
}

} // namespace foundation::log
