#include "benchmarks/peers/Owner.h"

#include "foundation/os/RetryOnInterrupt.h"

#include <array>
#include <cerrno>
#include <csignal>
#include <exception>
#include <iostream>
#include <stdexcept>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <system_error>
#include <unistd.h>

namespace benchmarks::peers {

namespace {

namespace os = foundation::os;

[[noreturn]] void runOwner(Peer& peer, std::size_t first, std::size_t count, int end) {
    ::prctl(PR_SET_PDEATHSIG, SIGKILL);
    try {
        const auto connection = peer.connect();
        for (std::size_t i = first; i < first + count; ++i) {
            connection->publish(numberedEntry(i));
        }
        if (::write(end, "", 1) == 1) {
            connection->serve(end);
        }
    } catch (const std::exception& error) {
        std::cerr << "cannot publish: " << error.what() << '\n';
    }
    ::_exit(0);
}

} // namespace

Owner::Owner(Peer& peer, std::size_t first, std::size_t count) {
    std::array<int, 2> ends{};
    if (::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends.data()) != 0) {
        throw std::system_error(errno, std::generic_category(), "socketpair");
    }
    connection.reset(ends[0]);
    os::FileDescriptor childsEnd(ends[1]);
    child = ::fork();
    if (child == -1) {
        throw std::system_error(errno, std::generic_category(), "fork");
    }
    if (child == 0) {
        connection.reset();
        runOwner(peer, first, count, childsEnd.get());
    }
    childsEnd.reset();
    char byte = 0;
    if (os::retryOnInterrupt([&] { return ::read(connection.get(), &byte, 1); }) != 1) {
        kill();
        throw std::runtime_error("the owner of the entries did not start");
    }
}

Owner::~Owner() {
    if (child != -1) {
        // Later children have a copy of the descriptor, so that closing it would tell nothing.
        ::shutdown(connection.get(), SHUT_RDWR);
        reap();
    }
}

void Owner::kill() {
    if (child != -1) {
        ::kill(child, SIGKILL);
        reap();
    }
}

void Owner::reap() {
    os::retryOnInterrupt([this] { return ::waitpid(child, nullptr, 0); });
    child = -1;
}

} // namespace benchmarks::peers
