#pragma once

#include "foundation/log/DiagnosticLogger.h"
#include "foundation/log/Filter.h"

#include <memory>
#include <mutex>
#include <set>

namespace foundation::log {

/// The loggers of this process and the filter that all of them obey, those of the future too.
class Roster {
public:
    /// The one object of the process. Loggers share it, so it outlives the last of them.
    static std::shared_ptr<Roster> get();

    void add(basic_diagnostic_logger<char>& logger);
    void remove(basic_diagnostic_logger<char>& logger) noexcept;
    void setFilter(Filter next);

    /// Has nothing written any more.
    void close() noexcept;

private:
    std::mutex mutex;
    std::set<basic_diagnostic_logger<char>*> loggers;
    Filter filter;
    bool isClosed = false;
};

} // namespace foundation::log
