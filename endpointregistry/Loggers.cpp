#include "endpointregistry/Loggers.h"

#include "foundation/log/Admin.h"

namespace agent::spf::endpointregistry {

using foundation::log::basic_diagnostic_logger;
using foundation::log::local::admin;

// Neither logger is ever destroyed: an endpoint with static storage may be destroyed later than
// every static that is made here.

basic_diagnostic_logger<char>& getLogger() {
    static auto& logger = *new basic_diagnostic_logger<char>("agent::spf::endpointregistry");
    return logger;
}

basic_diagnostic_logger<char>& getMoveAndDestructionLogger() {
    static auto& logger = *new basic_diagnostic_logger<char>(
        "detail::agent::spf::endpointregistry::endpointmoveanddestruction");
    return logger;
}

void activateLogger() {
    const auto settings = admin::get();
    settings->setDestination("stdout");
    settings->setFilter("agent::spf::endpointregistry=all;agent::spf::sharedmemory=all");
}

void deactivateLogger() {
    admin::get()->setFilter("");
}

} // namespace agent::spf::endpointregistry
