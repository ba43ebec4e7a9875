#pragma once

namespace foundation::log::attributes {

inline constexpr const char* timeStamp = "TimeStamp";
inline constexpr const char* channel = "Channel";
inline constexpr const char* severity = "Severity";
/// Tells the records of diagnostic loggers from those of the application.
inline constexpr const char* diagnostic = "Diagnostic";

} // namespace foundation::log::attributes
