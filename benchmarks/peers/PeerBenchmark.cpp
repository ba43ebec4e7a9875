// What programs might use in the registry's place, doing the same jobs. The peers are kept up, and
// their entries in place, from their first benchmark to the end, so that benchmarks may run in any
// order and as often as need be.

#include "benchmarks/peers/Owner.h"
#include "benchmarks/peers/Peer.h"

#include <benchmark/benchmark.h>
#include <chrono>
#include <exception>
#include <functional>
#include <iostream>
#include <map>
#include <memory>
#include <sched.h>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

namespace benchmarks::peers {

namespace {

using std::chrono::steady_clock;

struct Kind {
    std::string name;
    std::unique_ptr<Peer> (*start)();
    /// Whether what was published goes, sooner or later, when its publisher is killed.
    bool missesOwners;
};

const std::vector<Kind> peers = {{"redis", startRedis, false},
                                 {"dbus", startDBus, true},
                                 {"sqlite", startSqlite, false},
                                 {"lmdb", startLmdb, false},
                                 {"etcd", startEtcd, true}};

/// How long what ends is given to do so, and for how long something must stay to be there for ever.
constexpr std::chrono::seconds longestTrace{30};
constexpr std::chrono::seconds shortestEternity{2};

/// A peer with so many entries of another process.
class World {
public:
    World(const Kind& kind, std::size_t count)
        : peer(kind.start())
        , others(*peer, 0, count)
        , connection(peer->connect()) {
        if (connection->find(numberedEntry(0).key) != numberedEntry(0).data ||
            connection->list().size() != count) {
            throw std::runtime_error("not everything that is published was found");
        }
    }

    Peer& getPeer() { return *peer; }
    Connection& getConnection() { return *connection; }

private:
    std::unique_ptr<Peer> peer;
    Owner others;
    std::unique_ptr<Connection> connection;
};

/// The worlds so far.
class Worlds {
public:
    /// Throws std::runtime_error when there cannot be such a world, and does not try again.
    World& get(const Kind& kind, std::size_t count) {
        const auto [where, isNew] = worlds.try_emplace({kind.name, count});
        auto& [world, failure] = where->second;
        if (isNew) {
            try {
                world = std::make_unique<World>(kind, count);
            } catch (const std::exception& error) {
                failure = error.what();
            }
        }
        if (!world) {
            throw std::runtime_error(failure);
        }
        return *world;
    }

private:
    using WorldOrFailure = std::pair<std::unique_ptr<World>, std::string>;
    std::map<std::pair<std::string, std::size_t>, WorldOrFailure> worlds;
};

void publishAndWithdraw(benchmark::State& state, World& world, std::size_t count) {
    const Entry own = numberedEntry(count);
    for (auto _ : state) {
        world.getConnection().publish(own);
        world.getConnection().withdraw(own.key);
    }
}

/// The first so many entries, by turns.
void findEach(benchmark::State& state, World& world, std::size_t count) {
    constexpr std::size_t prime = 7919;
    std::vector<std::string> keys;
    for (std::size_t i = 0; i < count; ++i) {
        keys.push_back(numberedEntry(i).key);
    }
    std::size_t turn = 0;
    for (auto _ : state) {
        turn += prime;
        if (!world.getConnection().find(keys[turn % count])) {
            throw std::runtime_error("what is published was not found");
        }
    }
}

void findAgain(benchmark::State& state, World& world, std::size_t) {
    findEach(state, world, 1);
}

void list(benchmark::State& state, World& world, std::size_t count) {
    for (auto _ : state) {
        if (world.getConnection().list().size() != count) {
            throw std::runtime_error("not everything that is published was found");
        }
    }
}

double seconds(steady_clock::duration time) {
    return std::chrono::duration<double>(time).count();
}

/// How long after the death of its publisher an entry was seen last, if it was seen at all.
steady_clock::duration watchTrace(Connection& connection, const std::string& key,
                                  steady_clock::duration limit) {
    const auto death = steady_clock::now();
    steady_clock::duration seen{};
    while (connection.find(key) && seen < limit) {
        seen = steady_clock::now() - death;
    }
    return seen;
}

/// How long the record of a killed publisher is visible.
void killed(benchmark::State& state, const Kind& kind, World& world, std::size_t count) {
    const std::size_t number = count + 1; // Others use the one before.
    const std::string key = numberedEntry(number).key;
    const auto limit = kind.missesOwners ? longestTrace : shortestEternity;
    for (auto _ : state) {
        Owner publisher(world.getPeer(), number, 1);
        if (!world.getConnection().find(key)) {
            throw std::runtime_error("what is published was not found");
        }
        publisher.kill();
        const auto visible = watchTrace(world.getConnection(), key, limit);
        const bool isForEver = visible >= limit;
        if (isForEver) {
            world.getConnection().withdraw(key);
        }
        if (isForEver && kind.missesOwners) {
            throw std::runtime_error("what should go stays");
        }
        state.counters["visible_s"] = seconds(visible);
        state.counters["for_ever"] = isForEver ? 1 : 0;
    }
}

class Registration {
public:
    using Body = std::function<void(benchmark::State&, World&, std::size_t)>;

    Registration(Worlds& worlds, const Kind& kind)
        : worlds(worlds)
        , kind(kind) {}

    benchmark::internal::Benchmark* add(const std::string& operation, std::size_t count,
                                        const Body& body) {
        const std::string name = kind.name + '/' + operation + '/' + std::to_string(count);
        return benchmark::RegisterBenchmark(
            name.c_str(), [&worlds = worlds, &kind = kind, count, body](benchmark::State& state) {
                try {
                    body(state, worlds.get(kind, count), count);
                } catch (const std::exception& error) {
                    state.SkipWithError(error.what());
                }
            });
    }

    void addTimed(const std::string& operation, std::size_t count, const Body& body) {
        add(operation, count, body)->UseRealTime();
    }

    /// It takes seconds, and is the same each time.
    void addKilled() {
        add("killed", 1,
            [&kind = kind](benchmark::State& state, World& world, std::size_t count) {
                killed(state, kind, world, count);
            })
            ->Iterations(1)
            ->Repetitions(1)
            ->UseRealTime();
    }

private:
    Worlds& worlds;
    const Kind& kind;
};

void registerPeer(Worlds& worlds, const Kind& kind) {
    Registration registration(worlds, kind);
    for (const std::size_t count : {1U, 1000U}) {
        registration.addTimed("publishAndWithdraw", count, publishAndWithdraw);
    }
    for (const std::size_t count : {1U, 10U, 80U, 100U, 500U, 1000U, 10000U}) {
        registration.addTimed("find", count, findEach);
    }
    for (const std::size_t count : {1U, 80U, 1000U, 10000U}) {
        registration.addTimed("findAgain", count, findAgain);
    }
    for (const std::size_t count : {10U, 100U, 1000U}) {
        registration.addTimed("list", count, list);
    }
    registration.addKilled();
}

/// Has this process and all that it starts share a core. They wait for each other anyway, and
/// waking a core that sleeps would take longer than what most of them do. Whether it comes to that
/// would otherwise be up to where the scheduler has put them.
void stayOnOneCore() {
    const int core = ::sched_getcpu();
    cpu_set_t cores;
    CPU_ZERO(&cores);
    CPU_SET(static_cast<std::size_t>(core), &cores);
    if (core == -1 || ::sched_setaffinity(0, sizeof(cores), &cores) != 0) {
        std::cerr << "not on one core: the times of servers will vary\n";
    }
}

} // namespace

} // namespace benchmarks::peers

int main(int argc, char** argv) {
    using namespace benchmarks::peers;

    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv)) {
        return 1;
    }
    stayOnOneCore();
    Worlds worlds;
    const Kind registry = {"registry", startRegistry, true};
    Registration(worlds, registry).addKilled();
    for (const Kind& kind : peers) {
        registerPeer(worlds, kind);
    }
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    return 0;
}
