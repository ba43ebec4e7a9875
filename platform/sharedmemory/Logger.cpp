#include "sharedmemory/Logger.h"

namespace agent::spf::sharedmemory {

foundation::log::basic_diagnostic_logger<char>& getLogger() {
    // Never destroyed: a handle with static storage may outlive every static made here.
    static auto& logger =
        *new foundation::log::basic_diagnostic_logger<char>("agent::spf::sharedmemory");
    return logger;
}

} // namespace agent::spf::sharedmemory
