#pragma once

#include "foundation/log/DiagnosticLogger.h"

#pragma GCC visibility push(default)

namespace agent::spf::endpointregistry {

// All functions may be called from any thread. The loggers live until the process exits.

/// The logger of channel "agent::spf::endpointregistry": every failure of the library, before it
/// is thrown or passed over.
foundation::log::basic_diagnostic_logger<char>& getLogger();

/// The logger of channel "detail::agent::spf::endpointregistry::endpointmoveanddestruction": the
/// moves and ends of endpoints, and what was caught there. `activateLogger` does not enable it;
/// set a filter that names it to see it.
foundation::log::basic_diagnostic_logger<char>& getMoveAndDestructionLogger();

/// Prints what this library and its shared-memory service report to standard output, for the
/// whole process. It replaces the filter that was set before.
void activateLogger();

/// Ends that by clearing the filter; the destination stays set.
void deactivateLogger();

} // namespace agent::spf::endpointregistry

#pragma GCC visibility pop
