#include <endpointregistry/Endpoint.h>
#include <iostream>

int main() {
    using agent::spf::endpointregistry::Endpoint;
    if (const auto data = Endpoint::find("greeter", "main")) {
        std::cout << data->first << " " << data->second << "\n";
    }
}
