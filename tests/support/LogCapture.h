#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

namespace tests {

struct LogRecord {
    std::string channel;
    std::uint32_t severity;
    std::string message;

    bool operator==(const LogRecord&) const = default;
};

/// Collects what the diagnostic loggers write for as long as it lives, by a Boost.Log sink of its
/// own, and sets the filter that has them write it. Prints nothing.
class LogCapture {
public:
    /// Captures both channels of the registry and that of the shared-memory service, every level.
    LogCapture();
    /// Captures what this filter enables.
    explicit LogCapture(const std::string& filter);
    ~LogCapture();

    LogCapture(const LogCapture&) = delete;
    LogCapture& operator=(const LogCapture&) = delete;

    /// What was written so far, in order.
    std::vector<LogRecord> records() const;

private:
    class Sink;
    std::unique_ptr<Sink> sink;
};

/// The channel of the registry's failure reports.
inline const std::string registryChannel = "agent::spf::endpointregistry";
/// The channel of the traces of moves and destruction.
inline const std::string moveAndDestructionChannel =
    "detail::agent::spf::endpointregistry::endpointmoveanddestruction";

} // namespace tests
