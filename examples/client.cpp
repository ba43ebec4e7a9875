// Finds the service of service.cpp, wherever it listens, and asks it for its greeting.

#include <boost/asio/local/stream_protocol.hpp>
#include <endpointregistry/Endpoint.h>
#include <exception>
#include <iostream>
#include <string>

using agent::spf::endpointregistry::Endpoint;
using boost::asio::local::stream_protocol;

namespace {

bool greet() {
    // Nothing is found unless the service lives: what a killed one left is cleared up right here.
    const auto data = Endpoint::find("greeter", "main");
    if (!data) {
        std::cout << "client: nobody publishes greeter/main\n";
        return false;
    }
    const auto& [kind, path] = *data;
    std::cout << "client: found " << kind << " " << path << "\n";

    stream_protocol::iostream service{stream_protocol::endpoint(path)};
    std::string answer;
    std::getline(service, answer);
    std::cout << "client: the service says: " << answer << "\n";
    return true;
}

} // namespace

int main() {
    try {
        return greet() ? 0 : 1;
    } catch (const std::exception& error) {
        std::cerr << "client: " << error.what() << "\n";
        return 2;
    }
}
