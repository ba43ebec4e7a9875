// LMDB on tmpfs, without ever synchronising: like the registry, the data base need not outlive the
// machine's running. Readers keep their transaction object and only renew it, which is the cheapest
// way to see what was committed last.

#include "benchmarks/peers/Peer.h"
#include "benchmarks/peers/Server.h"

#include <lmdb.h>
#include <stdexcept>

namespace benchmarks::peers {

namespace {

constexpr std::size_t mapSize = std::size_t{64} << 20U;

void check(int result) {
    if (result != MDB_SUCCESS) {
        throw std::runtime_error(std::string("LMDB: ") + ::mdb_strerror(result));
    }
}

MDB_val toValue(const std::string& text) {
    return {text.size(), const_cast<char*>(text.data())};
}

std::string_view toView(const MDB_val& value) {
    return {static_cast<const char*>(value.mv_data), value.mv_size};
}

using Transaction = std::unique_ptr<MDB_txn, decltype(&::mdb_txn_abort)>;

class LmdbConnection : public Connection {
public:
    explicit LmdbConnection(const std::string& folder) {
        MDB_env* opened = nullptr;
        check(::mdb_env_create(&opened));
        environment.reset(opened);
        check(::mdb_env_set_mapsize(opened, mapSize));
        check(::mdb_env_open(opened, folder.c_str(), MDB_NOSYNC | MDB_WRITEMAP, 0600));
        Transaction transaction = begin(0);
        check(::mdb_dbi_open(transaction.get(), nullptr, 0, &database));
        commit(transaction);
        reading = begin(MDB_RDONLY);
        ::mdb_txn_reset(reading.get());
    }

    void publish(const Entry& entry) override {
        const std::string joined = join(entry.data);
        MDB_val key = toValue(entry.key);
        MDB_val value = toValue(joined);
        Transaction transaction = begin(0);
        check(::mdb_put(transaction.get(), database, &key, &value, MDB_NOOVERWRITE));
        commit(transaction);
    }

    void withdraw(const std::string& key) override {
        MDB_val value = toValue(key);
        Transaction transaction = begin(0);
        check(::mdb_del(transaction.get(), database, &value, nullptr));
        commit(transaction);
    }

    std::optional<Data> find(const std::string& key) override {
        std::optional<Data> found;
        read([&] {
            MDB_val wanted = toValue(key);
            MDB_val value{};
            const int result = ::mdb_get(reading.get(), database, &wanted, &value);
            if (result != MDB_NOTFOUND) {
                check(result);
                found = split(toView(value));
            }
        });
        return found;
    }

    std::vector<Data> list() override {
        std::vector<Data> found;
        read([&] {
            MDB_cursor* cursor = nullptr;
            check(::mdb_cursor_open(reading.get(), database, &cursor));
            MDB_val key{};
            MDB_val value{};
            while (::mdb_cursor_get(cursor, &key, &value, MDB_NEXT) == MDB_SUCCESS) {
                found.push_back(split(toView(value)));
            }
            ::mdb_cursor_close(cursor);
        });
        return found;
    }

private:
    Transaction begin(unsigned flags) {
        MDB_txn* transaction = nullptr;
        check(::mdb_txn_begin(environment.get(), nullptr, flags, &transaction));
        return {transaction, ::mdb_txn_abort};
    }

    static void commit(Transaction& transaction) { check(::mdb_txn_commit(transaction.release())); }

    template<typename Body>
    void read(Body body) {
        check(::mdb_txn_renew(reading.get()));
        body();
        ::mdb_txn_reset(reading.get());
    }

    std::unique_ptr<MDB_env, decltype(&::mdb_env_close)> environment{nullptr, ::mdb_env_close};
    MDB_dbi database = 0;
    Transaction reading{nullptr, ::mdb_txn_abort};
};

class LmdbPeer : public Peer {
public:
    std::unique_ptr<Connection> connect() override {
        return std::make_unique<LmdbConnection>(folder.get());
    }

private:
    TemporaryFolder folder;
};

} // namespace

std::unique_ptr<Peer> startLmdb() {
    return std::make_unique<LmdbPeer>();
}

} // namespace benchmarks::peers
