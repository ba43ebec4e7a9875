// A service on a Unix-domain socket, which clients find without knowing its path.
//
//     service SOCKET-PATH [GROUP]
//
// With a group, its members find the service as well. That they may connect is up to the socket's
// permissions, which are given to the group here.

#include <boost/asio/io_context.hpp>
#include <boost/asio/local/stream_protocol.hpp>
#include <endpointregistry/Endpoint.h>
#include <exception>
#include <grp.h>
#include <iostream>
#include <span>
#include <stdexcept>
#include <string>
#include <sys/stat.h>
#include <unistd.h>

using agent::spf::endpointregistry::Endpoint;
using boost::asio::local::stream_protocol;

namespace {

void admit(const std::string& groupName, const std::string& path) {
    constexpr auto sameUser = static_cast<uid_t>(-1);
    constexpr mode_t userAndGroup = 0660;
    const group* const entry = ::getgrnam(groupName.c_str()); // NOLINT: there is one thread
    if (entry == nullptr || ::chown(path.c_str(), sameUser, entry->gr_gid) != 0 ||
        ::chmod(path.c_str(), userAndGroup) != 0) {
        throw std::runtime_error("cannot give " + path + " to the group " + groupName);
    }
}

void serve(const std::string& path, const std::string& groupName) {
    // Open the socket first: whoever finds the endpoint may connect at once.
    boost::asio::io_context io;
    stream_protocol::acceptor acceptor(io, stream_protocol::endpoint(path));

    // From here on every process of this user finds ("unix", path) under the group tag "greeter"
    // and the selected key "main", until this object or this process is gone.
    Endpoint endpoint({"unix", path}, "greeter", "main");
    std::cout << "service " << ::getpid() << ": published " << path;
    if (!groupName.empty()) {
        admit(groupName, path);
        endpoint.addTrustees({groupName});
        std::cout << " and shared it with " << groupName;
    }
    std::cout << std::endl;

    for (;;) {
        stream_protocol::iostream client(acceptor.accept());
        client << "hello from process " << ::getpid() << "\n";
    }
}

} // namespace

int main(int argc, char* argv[]) {
    const std::span arguments(argv, static_cast<std::size_t>(argc));
    if (arguments.size() != 2 && arguments.size() != 3) {
        std::cerr << "usage: service SOCKET-PATH [GROUP]\n";
        return 2;
    }
    try {
        serve(arguments[1], arguments.size() == 3 ? arguments[2] : "");
    } catch (const Endpoint::DuplicateEndpointError& error) {
        // Another process publishes this group tag and key already, and is alive.
        std::cout << "service " << ::getpid() << ": refused: " << error.what() << "\n";
        return 1;
    } catch (const std::exception& error) {
        std::cerr << "service: " << error.what() << "\n";
        return 2;
    }
}
