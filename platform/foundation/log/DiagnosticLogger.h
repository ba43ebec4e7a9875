#pragma once

#include <atomic>
#include <cstdint>
#include <memory>
#include <string>
#include <string_view>
#include <type_traits>

#pragma GCC visibility push(default)

namespace foundation::log {

/// Severities are bits, the higher the graver; a logger keeps a mask of those that it writes.
enum class severity : std::uint32_t {
    finest = 1,
    finer = 2,
    trace = 4,
    debug = 8,
    caught = 16,
    info = 32,
    notice = 64,
    attention = 128,
    warning = 256,
    error = 512,
    fatal = 1024,
};

template<typename CharT>
class basic_diagnostic_logger;

/// Writes records of one channel to Boost.Log.
///
/// A record carries the attributes "TimeStamp" (local time), "Channel" (std::string), "Severity"
/// (std::uint32_t, one bit) and the message. Which severities are enabled is decided by the filter
/// of `local::admin`, also for loggers that are made after it was set; without one, none is. Any
/// thread may log at any time.
template<>
class basic_diagnostic_logger<char> {
public:
    explicit basic_diagnostic_logger(std::string channel);
    ~basic_diagnostic_logger();

    basic_diagnostic_logger(const basic_diagnostic_logger&) = delete;
    basic_diagnostic_logger& operator=(const basic_diagnostic_logger&) = delete;

    const std::string& channel() const noexcept;

    /// Whether records of this severity are written. Takes no lock.
    bool isEnabled(severity level) const noexcept {
        return (enabledMask.load(std::memory_order_relaxed) & static_cast<std::uint32_t>(level)) !=
               0;
    }

    /// Writes one record, its message made of the pieces in order: texts as they stand, numbers in
    /// decimal. When the severity is not enabled, nothing is formed. Throws what a sink of the
    /// application throws; changes errno.
    template<typename... Pieces>
    void log(severity level, const Pieces&... pieces) {
        if (!isEnabled(level)) {
            return;
        }
        std::string message;
        (append(message, pieces), ...);
        write(level, message);
    }

    /// Replaces the mask of enabled severities; the next change of the filter replaces it again.
    void setEnabledMask(std::uint32_t mask) noexcept;

private:
    template<typename Piece>
    static void append(std::string& message, const Piece& piece) {
        if constexpr (std::is_arithmetic_v<Piece>) {
            message += std::to_string(piece);
        } else if constexpr (std::is_array_v<Piece>) {
            message += static_cast<const char*>(piece);
        } else {
            message += piece;
        }
    }

    void write(severity level, const std::string& message);

    struct Source;
    std::atomic<std::uint32_t> enabledMask;
    std::unique_ptr<Source> source;
};

} // namespace foundation::log

#pragma GCC visibility pop
