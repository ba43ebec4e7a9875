#pragma once

#include "foundation/log/DiagnosticLogger.h"

#include <array>
#include <cstdint>
#include <string_view>
#include <utility>

namespace foundation::log {

/// The names of the severities, for filters and for printing.
inline constexpr std::array<std::pair<std::string_view, severity>, 11> severityNames{{
    {"finest", severity::finest},
    {"finer", severity::finer},
    {"trace", severity::trace},
    {"debug", severity::debug},
    {"caught", severity::caught},
    {"info", severity::info},
    {"notice", severity::notice},
    {"attention", severity::attention},
    {"warning", severity::warning},
    {"error", severity::error},
    {"fatal", severity::fatal},
}};

} // namespace foundation::log
