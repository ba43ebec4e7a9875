// A service on a Unix-domain socket, which clients find without knowing its path.
//
//     service SOCKET-PATH

#include <boost/asio/io_context.hpp>
#include <boost/asio/local/stream_protocol.hpp>
#include <endpointregistry/Endpoint.h>
#include <exception>
#include <iostream>
#include <span>
#include <string>
#include <unistd.h>

using agent::spf::endpointregistry::Endpoint;
using boost::asio::local::stream_protocol;

namespace {

void serve(const std::string& path) {
    // Open the socket first: whoever finds the endpoint may connect at once.
    boost::asio::io_context io;
    stream_protocol::acceptor acceptor(io, stream_protocol::endpoint(path));

    // From here on every process of this user finds ("unix", path) under the group tag "greeter"
    // and the selected key "main", until this object or this process is gone.
    const Endpoint endpoint({"unix", path}, "greeter", "main");
    std::cout << "service " << ::getpid() << ": published " << path << std::endl;

    for (;;) {
        stream_protocol::iostream client(acceptor.accept());
        client << "hello from process " << ::getpid() << "\n";
    }
}

} // namespace

int main(int argc, char* argv[]) {
    const std::span arguments(argv, static_cast<std::size_t>(argc));
    if (arguments.size() != 2) {
        std::cerr << "usage: service SOCKET-PATH\n";
        return 2;
    }
    try {
        serve(arguments[1]);
    } catch (const Endpoint::DuplicateEndpointError& error) {
        // Another process publishes this group tag and key already, and is alive.
        std::cout << "service " << ::getpid() << ": refused: " << error.what() << "\n";
        return 1;
    } catch (const std::exception& error) {
        std::cerr << "service: " << error.what() << "\n";
        return 2;
    }
}
