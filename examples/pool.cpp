// A pool of workers that finds its workers by itself.
//
//     pool
//
// Each worker publishes the path of its socket under the group tag "pool-worker". The pool is told
// when one comes and when one goes, killed ones included, between all else that it waits for: here
// lines on its standard input, each of which it gives to a worker in turn. It ends with its input.

#include <algorithm>
#include <array>
#include <chrono>
#include <endpointregistry/EndpointMonitor.h>
#include <exception>
#include <iostream>
#include <poll.h>
#include <string>
#include <unistd.h>
#include <vector>

using agent::spf::endpointregistry::EndpointMonitor;

namespace {

class Pool {
public:
    int fileDescriptor() const { return monitor.fileDescriptor(); }

    /// Takes note of who has come and who has gone. If that cannot be told now, the descriptor
    /// becomes readable for another attempt, and nothing is lost.
    void update() {
        try {
            for (const EndpointMonitor::Event& event : monitor.take()) {
                note(event);
            }
        } catch (const std::exception& error) {
            std::cerr << "pool: " << error.what() << std::endl;
        }
    }

    void give(const std::string& job) {
        if (workers.empty()) {
            std::cout << "nobody for " << job << std::endl;
            return;
        }
        std::rotate(workers.begin(), workers.begin() + 1, workers.end());
        // Where a real pool would connect to the worker's socket.
        std::cout << job << " is for worker " << workers.back().publisher << std::endl;
    }

private:
    void note(const EndpointMonitor::Event& event) {
        if (event.kind == EndpointMonitor::Event::Kind::appeared) {
            workers.push_back(event);
            std::cout << "worker " << event.publisher << " at " << event.data.second << " has come"
                      << std::endl;
        } else {
            std::erase_if(workers, [&](const auto& worker) { return worker.name == event.name; });
            std::cout << "worker " << event.publisher << " has gone" << std::endl;
        }
    }

    EndpointMonitor monitor{"pool-worker"};
    std::vector<EndpointMonitor::Event> workers;
};

/// The whole lines of what can be read by now; false at the end of the input.
bool readJobs(std::string& rest, const auto& take) {
    std::array<char, 4096> buffer{};
    const ssize_t size = ::read(STDIN_FILENO, buffer.data(), buffer.size());
    if (size <= 0) {
        return false;
    }
    rest.append(buffer.data(), static_cast<std::size_t>(size));
    for (auto end = rest.find('\n'); end != std::string::npos; end = rest.find('\n')) {
        take(rest.substr(0, end));
        rest.erase(0, end + 1);
    }
    return true;
}

void run() {
    Pool pool;
    pool.update(); // Those that are there already.
    std::string rest;
    for (bool goesOn = true; goesOn;) {
        std::array<pollfd, 2> awaited{
            {{STDIN_FILENO, POLLIN, 0}, {pool.fileDescriptor(), POLLIN, 0}}};
        ::poll(awaited.data(), awaited.size(), -1);
        if (awaited[1].revents != 0) {
            pool.update();
        }
        if (awaited[0].revents != 0) {
            goesOn = readJobs(rest, [&](const std::string& job) { pool.give(job); });
        }
    }
}

} // namespace

int main() {
    try {
        run();
        return 0;
    } catch (const std::exception& error) {
        std::cerr << "pool: " << error.what() << "\n";
        return 1;
    }
}
