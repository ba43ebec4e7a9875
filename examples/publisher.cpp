#include <endpointregistry/Endpoint.h>
#include <iostream>

int main() {
    using agent::spf::endpointregistry::Endpoint;
    const Endpoint endpoint({"unix", "/run/greeter.sock"}, "greeter", "main");
    std::cout << "Published until you press return." << std::flush;
    std::cin.get();
}
