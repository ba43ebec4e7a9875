// Ends with endpoints of static storage still published. With the argument "traced" their ends are
// logged, too.

#include "endpointregistry/Endpoint.h"
#include "endpointregistry/Loggers.h"
#include "foundation/log/Admin.h"

#include <cstdlib>
#include <exception>
#include <iostream>

using agent::spf::endpointregistry::Endpoint;

namespace {

// Made before anything of the library's that is made on first use, so it goes after all that.
Endpoint older;

void trace() {
    agent::spf::endpointregistry::activateLogger();
    foundation::log::local::admin::get()->setFilter(
        agent::spf::endpointregistry::getMoveAndDestructionLogger().channel() + "=all");
}

void publish() {
    static const Endpoint younger({"younger", ""}, "at exit");
    older = Endpoint({"older", ""}, "at exit");
    if (Endpoint::filter("at exit").size() != 2) {
        std::cerr << "not published\n";
        std::abort();
    }
}

} // namespace

int main(int argc, char** /*argv*/) {
    try {
        if (argc > 1) {
            trace();
        }
        publish();
        return EXIT_SUCCESS;
    } catch (const std::exception& error) {
        std::cerr << error.what() << '\n';
        return EXIT_FAILURE;
    }
}
