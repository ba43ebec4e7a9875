// A worker that a pool finds: see pool.cpp.
//
//     worker SOCKET-PATH

#include <endpointregistry/Endpoint.h>
#include <exception>
#include <iostream>
#include <span>
#include <string>
#include <unistd.h>

using agent::spf::endpointregistry::Endpoint;

int main(int argc, char* argv[]) {
    const std::span arguments(argv, static_cast<std::size_t>(argc));
    if (arguments.size() != 2) {
        std::cerr << "usage: worker SOCKET-PATH\n";
        return 2;
    }
    try {
        // Whoever publishes no selected key is told from the others by what is published.
        const Endpoint endpoint({"unix", arguments[1]}, "pool-worker");
        std::cout << "worker " << ::getpid() << ": published " << arguments[1] << std::endl;
        std::cin.get(); // Where a real worker would serve its socket.
        return 0;
    } catch (const std::exception& error) {
        std::cerr << "worker: " << error.what() << "\n";
        return 1;
    }
}
