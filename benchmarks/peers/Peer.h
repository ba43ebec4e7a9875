#pragma once

#include <cstddef>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace benchmarks::peers {

using Data = std::pair<std::string, std::string>;

struct Entry {
    std::string key;
    Data data;
};

/// The entries look like those of the registry's own benchmarks.
Entry numberedEntry(std::size_t number);

/// Both halves of the data in one value, for those who store bytes only.
std::string join(const Data& data);
Data split(std::string_view value);

/// What one process has open to use a peer: a connection, a data base. Failures of the peer are
/// thrown as std::runtime_error.
///
/// Each operation is what a careful user of the peer would do for it, with all that can be prepared
/// once left out of the operation. None of them does more than its peer offers: only D-Bus and etcd
/// know owners at all, and nobody but the registry lets an owner choose who may read.
class Connection {
public:
    virtual ~Connection() = default;

    virtual void publish(const Entry& entry) = 0;
    virtual void withdraw(const std::string& key) = 0;

    /// The data of the entry of this key, if there is one.
    virtual std::optional<Data> find(const std::string& key) = 0;

    /// The data of all entries.
    virtual std::vector<Data> list() = 0;

    /// Does what an owner has to do for its entries to stay, until this descriptor can be read.
    virtual void serve(int end);
};

/// A peer that is up and running, without any entry, for as long as the object lives.
class Peer {
public:
    virtual ~Peer() = default;

    /// May be called in a child as well; what it returns belongs to the process that called it.
    virtual std::unique_ptr<Connection> connect() = 0;
};

std::unique_ptr<Peer> startRegistry();
std::unique_ptr<Peer> startRedis();
std::unique_ptr<Peer> startDBus();
std::unique_ptr<Peer> startSqlite();
std::unique_ptr<Peer> startLmdb();
std::unique_ptr<Peer> startEtcd();

} // namespace benchmarks::peers
