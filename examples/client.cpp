// Finds the service of service.cpp, wherever it listens, and asks it for its greeting.
//
//     client [--from-groups]
//
// With --from-groups it also finds a service that another user shares with a group of this one.

#include <boost/asio/local/stream_protocol.hpp>
#include <endpointregistry/Endpoint.h>
#include <exception>
#include <iostream>
#include <span>
#include <string>
#include <string_view>

using agent::spf::endpointregistry::Endpoint;
using boost::asio::local::stream_protocol;

namespace {

bool greet(bool fromGroups) {
    // Nothing is found unless the service lives: what a killed one left is cleared up right here.
    const auto data = fromGroups ? Endpoint::findFromAllTrustees("greeter", "main")
                                 : Endpoint::find("greeter", "main");
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

int main(int argc, char* argv[]) {
    const std::span arguments(argv, static_cast<std::size_t>(argc));
    try {
        const bool fromGroups =
            arguments.size() > 1 && std::string_view(arguments[1]) == "--from-groups";
        return greet(fromGroups) ? 0 : 1;
    } catch (const std::exception& error) {
        std::cerr << "client: " << error.what() << "\n";
        return 2;
    }
}
