#pragma once

#include "foundation/log/DiagnosticLogger.h"

namespace agent::spf::sharedmemory {

/// The logger of channel "agent::spf::sharedmemory": every failure before it is thrown.
foundation::log::basic_diagnostic_logger<char>& getLogger();

} // namespace agent::spf::sharedmemory
