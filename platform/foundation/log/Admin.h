#pragma once

#include <memory>
#include <string>

#pragma GCC visibility push(default)

namespace foundation::log::local {

/// The log settings of this process. Its operations may be called from any thread.
class admin { // NOLINT(readability-identifier-naming): the name is established
public:
    /// The one object of the process.
    static std::shared_ptr<admin> get();

    admin(const admin&) = delete;
    admin& operator=(const admin&) = delete;
    virtual ~admin();

    /// Has the records of all diagnostic loggers printed to "stdout" or "stderr", one line each
    /// with time, channel, severity and message; it replaces the destination set before. Sinks
    /// that the application added to Boost.Log stay, and receive the records as well. Throws
    /// std::invalid_argument for any other name.
    virtual void setDestination(const std::string& destination) = 0;

    /// Decides which severities each channel writes: "channel=level" pairs joined by ";".
    ///
    /// A level is "all", "none", the name of a severity, or its number; the last two stand for
    /// that severity and all graver ones. A channel that is not named writes nothing; so does
    /// every channel under the empty filter. Where neither a destination was set nor the
    /// application has a sink, Boost.Log itself prints what a filter enables. Of two pairs for one
    /// channel the later holds. Throws std::invalid_argument, changing nothing, for what it cannot
    /// read.
    virtual void setFilter(const std::string& filter) = 0;

protected:
    admin() = default;
};

} // namespace foundation::log::local

#pragma GCC visibility pop
