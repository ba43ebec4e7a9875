#include "benchmarks/Publishers.h"

#include "endpointregistry/Endpoint.h"
#include "endpointregistry/Groups.h"
#include "foundation/os/RetryOnInterrupt.h"

#include <array>
#include <cerrno>
#include <cstdlib>
#include <exception>
#include <iostream>
#include <set>
#include <stdexcept>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <system_error>
#include <unistd.h>
#include <vector>

namespace benchmarks {

namespace {

namespace os = foundation::os;
using agent::spf::endpointregistry::Endpoint;

void raiseDescriptorLimit() {
    rlimit limit{};
    ::getrlimit(RLIMIT_NOFILE, &limit);
    limit.rlim_cur = limit.rlim_max;
    ::setrlimit(RLIMIT_NOFILE, &limit);
}

std::vector<Endpoint> publish(std::size_t count, const std::string& trustee) {
    raiseDescriptorLimit();
    std::vector<Endpoint> endpoints;
    for (std::size_t i = 0; i < count; ++i) {
        const std::string number = std::to_string(i);
        endpoints.emplace_back(Endpoint::DataPair("unix", "/run/service-" + number), groupTag,
                               "key " + number);
        endpoints.back().setTrustees({trustee});
    }
    return endpoints;
}

bool receive(int connection) {
    char byte = 0;
    return os::retryOnInterrupt([&] { return ::read(connection, &byte, 1); }) == 1;
}

[[noreturn]] void runChild(int connection, std::size_t count, const std::string& trustee) {
    try {
        const std::vector<Endpoint> endpoints = publish(count, trustee);
        if (::write(connection, "", 1) == 1) {
            receive(connection); // Until the parent goes.
        }
    } catch (const std::exception& error) {
        std::cerr << "cannot publish: " << error.what() << '\n';
    }
    ::_exit(0);
}

} // namespace

std::string ownGroup() {
    const auto groups = agent::spf::endpointregistry::getCurrentUserGroups();
    return groups.empty() ? std::string() : *groups.begin();
}

Publishers::Publishers(std::size_t count, const std::string& trustee) {
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
        runChild(childsEnd.get(), count, trustee);
    }
    childsEnd.reset();
    if (!receive(connection.get())) {
        throw std::runtime_error("the publishers did not start");
    }
}

Publishers::~Publishers() {
    connection.reset();
    os::retryOnInterrupt([&] { return ::waitpid(child, nullptr, 0); });
}

void measureLookup(benchmark::State& state, const std::string& trustee,
                   const std::function<bool()>& body) {
    try {
        const Publishers publishers(static_cast<std::size_t>(state.range(0)), trustee);
        for (auto _ : state) {
            if (!body()) {
                state.SkipWithError("not everything that is published was found");
                return;
            }
        }
    } catch (const std::exception& error) {
        state.SkipWithError(error.what());
    }
}

void reportPerEntry(benchmark::State& state) {
    using benchmark::Counter;
    state.counters["per_entry"] = Counter(static_cast<double>(state.range(0)),
                                          Counter::kIsIterationInvariantRate | Counter::kInvert);
}

} // namespace benchmarks
