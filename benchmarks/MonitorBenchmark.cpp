// What a monitor knows, how soon, and what that takes.

#include "benchmarks/Benchmarks.h"
#include "benchmarks/Helper.h"
#include "benchmarks/Keys.h"
#include "benchmarks/Measuring.h"
#include "benchmarks/Publishers.h"
#include "endpointregistry/Endpoint.h"
#include "endpointregistry/EndpointMonitor.h"

#include <algorithm>
#include <array>
#include <benchmark/benchmark.h>
#include <chrono>
#include <csignal>
#include <cstdint>
#include <list>
#include <malloc.h>
#include <optional>
#include <stdexcept>
#include <string>
#include <sys/wait.h>
#include <unistd.h>
#include <utility>
#include <vector>

namespace benchmarks {

namespace {

using agent::spf::endpointregistry::Endpoint;
using agent::spf::endpointregistry::EndpointMonitor;
using Clock = std::chrono::steady_clock;

constexpr std::chrono::seconds limit{10};

/// A monitor of so many entries that has nothing more to look at again.
EndpointMonitor monitorOf(std::size_t entries) {
    provideOthers(entries);
    EndpointMonitor monitor;
    std::size_t known = 0;
    while (known < entries) {
        known += monitor.wait(limit).size();
    }
    monitor.wait(std::chrono::milliseconds(100));
    return monitor;
}

void find(benchmark::State& state, std::size_t entries) {
    EndpointMonitor monitor = monitorOf(entries);
    Keys keys(entries);
    measure(state, {.entries = entries},
            [&] { return monitor.find(groupTag, keys.next()).has_value(); });
}

void list(benchmark::State& state, std::size_t entries) {
    EndpointMonitor monitor = monitorOf(entries);
    measure(state, {.entries = entries}, [&] { return monitor.list().size() == entries; });
}

void waitFor(EndpointMonitor& monitor, EndpointMonitor::Event::Kind kind) {
    const auto events = monitor.wait(limit);
    if (events.size() != 1 || events.front().kind != kind) {
        throw std::runtime_error("it was not what had happened that was reported");
    }
}

/// Median and 99th percentile of times in microseconds.
void reportTimes(benchmark::State& state, std::vector<double> times) {
    constexpr double nearlyAll = 0.99;
    std::sort(times.begin(), times.end());
    const auto at = [&times](double part) {
        return times[static_cast<std::size_t>(part * static_cast<double>(times.size() - 1))];
    };
    state.counters["p50_us"] = at(0.5);
    state.counters["p99_us"] = at(nearlyAll);
}

/// A process that publishes when it is told to, and says when it began.
class Publisher {
public:
    Publisher() {
        if (::pipe(orders) != 0 || ::pipe(answers) != 0) {
            throw std::runtime_error("no pipe");
        }
        child = ::fork();
        if (child == 0) {
            char order = 0;
            ::read(orders[0], &order, 1);
            const Clock::time_point begin = Clock::now();
            const Endpoint endpoint({"unix", "/run/own"}, groupTag, "own");
            ::write(answers[1], &begin, sizeof begin);
            ::pause();
        }
    }
    Publisher(const Publisher&) = delete;
    Publisher& operator=(const Publisher&) = delete;
    ~Publisher() {
        if (child > 0) {
            kill();
            reap();
        }
        for (const int descriptor : {orders[0], orders[1], answers[0], answers[1]}) {
            ::close(descriptor);
        }
    }

    void publish() const { ::write(orders[1], "p", 1); }

    Clock::time_point begin() const {
        Clock::time_point time;
        ::read(answers[0], &time, sizeof time);
        return time;
    }

    void kill() const { ::kill(child, SIGKILL); }
    void reap() { ::waitpid(std::exchange(child, -1), nullptr, 0); }

private:
    int orders[2]{};  // NOLINT(*-avoid-c-arrays)
    int answers[2]{}; // NOLINT(*-avoid-c-arrays)
    pid_t child = -1;
};

/// From the beginning of a publication to its report, and from a kill to its report, in another
/// process that waits for it.
void times(benchmark::State& state, std::size_t entries, bool ofDeaths) {
    constexpr int rounds = 400;
    EndpointMonitor monitor = monitorOf(entries);
    std::vector<double> found;
    const auto note = [&found](Clock::duration time) {
        found.push_back(std::chrono::duration<double, std::micro>(time).count());
    };
    for (auto _ : state) {
        for (int round = 0; round < rounds; ++round) {
            Publisher publisher;
            publisher.publish();
            waitFor(monitor, EndpointMonitor::Event::Kind::appeared);
            const auto appeared = Clock::now();
            if (const auto begin = publisher.begin(); !ofDeaths) {
                note(appeared - begin);
            }
            const auto killed = Clock::now();
            publisher.kill();
            waitFor(monitor, EndpointMonitor::Event::Kind::disappeared);
            if (ofDeaths) {
                note(Clock::now() - killed);
            }
            publisher.reap();
        }
    }
    reportTimes(state, found);
}

/// How much of the heap each watched entry takes.
void memory(benchmark::State& state, std::size_t entries) {
    provideOthers(entries);
    for (auto _ : state) {
        const std::size_t before = ::mallinfo2().uordblks;
        EndpointMonitor monitor;
        monitor.wait(limit);
        const std::size_t after = ::mallinfo2().uordblks;
        state.counters["heap_bytes"] =
            static_cast<double>(after - before) / static_cast<double>(entries);
    }
}

/// Events that one monitor reports while eight processes publish and withdraw, each the oldest of
/// the few entries that it has at a time.
void throughput(benchmark::State& state) {
    constexpr int processes = 8;
    constexpr std::chrono::seconds duration{2};
    withdrawOthers();
    EndpointMonitor monitor = monitorOf(0);
    std::list<Helper> publishers;
    for (int number = 0; number < processes; ++number) {
        publishers.emplace_back([number](Helper::Parent& parent) {
            constexpr std::size_t atATime = 8;
            std::array<Endpoint, atATime> endpoints;
            parent.tellReady();
            for (std::size_t turn = 0; parent.goesOn(); turn = (turn + 1) % atATime) {
                endpoints.at(turn).reset();
                endpoints.at(turn) =
                    Endpoint({std::to_string(turn), ""}, groupTag + std::to_string(number));
                parent.count();
            }
        });
    }
    const auto published = [&publishers] {
        std::uint64_t sum = 0;
        for (const Helper& publisher : publishers) {
            sum += publisher.count();
        }
        return sum;
    };
    for (auto _ : state) {
        const auto start = Clock::now();
        const std::uint64_t before = published();
        std::size_t events = 0;
        while (Clock::now() - start < duration) {
            events += monitor.wait(std::chrono::milliseconds(10)).size();
        }
        const double seconds = std::chrono::duration<double>(Clock::now() - start).count();
        state.counters["events_per_second"] = static_cast<double>(events) / seconds;
        state.counters["publications_per_second"] =
            static_cast<double>(published() - before) / seconds;
    }
}

void addOnce(const std::string& name, std::size_t entries,
             const std::function<void(benchmark::State&, std::size_t)>& function) {
    benchmark::RegisterBenchmark((name + "/" + std::to_string(entries)).c_str(),
                                 [function, entries](benchmark::State& state) {
                                     try {
                                         function(state, entries);
                                     } catch (const std::exception& error) {
                                         state.SkipWithError(error.what());
                                     }
                                 })
        ->Iterations(1);
}

} // namespace

void registerMonitors() {
    for (const std::size_t entries : {1UL, 10UL, 80UL, 100UL, 500UL, 1000UL, 10000UL}) {
        add("monitor/find", entries, find);
    }
    for (const std::size_t entries : entryCounts) {
        add("monitor/list", entries, list);
    }
    for (const std::size_t entries : {1UL, 100UL, 1000UL}) {
        addOnce("monitor/appearance", entries,
                [](auto& state, std::size_t count) { times(state, count, false); });
        addOnce("monitor/death", entries,
                [](auto& state, std::size_t count) { times(state, count, true); });
    }
    addOnce("monitor/memory", 10000, memory);
    addOnce("monitor/throughput", 8, [](auto& state, std::size_t) { throughput(state); });
}

} // namespace benchmarks
