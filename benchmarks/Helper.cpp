#include "benchmarks/Helper.h"

#include "foundation/os/RetryOnInterrupt.h"

#include <array>
#include <atomic>
#include <cerrno>
#include <csignal>
#include <exception>
#include <iostream>
#include <new>
#include <stdexcept>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <system_error>
#include <unistd.h>

namespace benchmarks {

namespace os = foundation::os;

struct Helper::Parent::Shared {
    std::atomic<bool> hasEnded{false};
    std::atomic<bool> hasFailed{false};
    // Beside nothing else that anybody reads while the work runs.
    alignas(64) std::atomic<std::uint64_t> count{0};
};

namespace {

bool receive(int connection) {
    char byte = 0;
    return os::retryOnInterrupt([&] { return ::read(connection, &byte, 1); }) == 1;
}

template<typename Type>
std::shared_ptr<Type> makeShared() {
    void* const memory =
        ::mmap(nullptr, sizeof(Type), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
    if (memory == MAP_FAILED) {
        throw std::bad_alloc();
    }
    return {new (memory) Type, [](Type* object) { ::munmap(object, sizeof *object); }};
}

} // namespace

void Helper::Parent::tellReady() {
    if (::write(connection, "", 1) != 1) {
        throw std::system_error(errno, std::generic_category(), "write");
    }
}

bool Helper::Parent::goesOn() const {
    return !shared->hasEnded.load(std::memory_order_relaxed);
}

void Helper::Parent::count() {
    shared->count.fetch_add(1, std::memory_order_relaxed);
}

void Helper::Parent::waitForEnd() {
    receive(connection);
}

Helper::Helper(const std::function<void(Parent&)>& work) {
    std::array<int, 2> sockets{};
    if (::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, sockets.data()) != 0) {
        throw std::system_error(errno, std::generic_category(), "socketpair");
    }
    connection.reset(sockets[0]);
    os::FileDescriptor childsEnd(sockets[1]);
    ends.connection = childsEnd.get();
    ends.shared = makeShared<Parent::Shared>();
    child = ::fork();
    if (child == -1) {
        throw std::system_error(errno, std::generic_category(), "fork");
    }
    if (child == 0) {
        ::prctl(PR_SET_PDEATHSIG, SIGKILL);
        connection.reset();
        try {
            work(ends);
        } catch (const std::exception& error) {
            ends.shared->hasFailed = true;
            std::cerr << "a helper failed: " << error.what() << '\n';
        }
        ::_exit(0);
    }
    childsEnd.reset();
    if (!receive(connection.get())) {
        os::retryOnInterrupt([&] { return ::waitpid(child, nullptr, 0); });
        throw std::runtime_error("a helper did not get ready");
    }
}

Helper::~Helper() {
    ends.shared->hasEnded = true;
    // Closing would not do: helpers that were forked later have the descriptor, too.
    ::shutdown(connection.get(), SHUT_RDWR);
    os::retryOnInterrupt([&] { return ::waitpid(child, nullptr, 0); });
}

std::uint64_t Helper::count() const {
    return ends.shared->count.load(std::memory_order_relaxed);
}

bool Helper::hasFailed() const {
    return ends.shared->hasFailed;
}

} // namespace benchmarks
