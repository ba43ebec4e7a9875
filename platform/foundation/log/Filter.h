#pragma once

#include <cstdint>
#include <map>
#include <string>

namespace foundation::log {

/// Which severities each channel writes, read from "channel=level" pairs joined by ";".
class Filter {
public:
    /// Enables nothing.
    Filter() = default;

    /// Throws std::invalid_argument for what it cannot read.
    explicit Filter(const std::string& pairs);

    /// The mask of enabled severities of a channel.
    std::uint32_t maskOf(const std::string& channel) const;

private:
    std::map<std::string, std::uint32_t> masks;
};

} // namespace foundation::log
