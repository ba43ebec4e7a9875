// SQLite on tmpfs, in WAL mode so that readers and the writer do not wait for each other. Nothing
// is ever synchronised, which spares system calls: like the registry, the data base need not
// outlive the machine's running.

#include "benchmarks/peers/Peer.h"
#include "benchmarks/peers/Server.h"

#include <sqlite3.h>
#include <stdexcept>

namespace benchmarks::peers {

namespace {

void check(bool isGood, sqlite3* database) {
    if (!isGood) {
        throw std::runtime_error(std::string("SQLite: ") + ::sqlite3_errmsg(database));
    }
}

class Database {
public:
    explicit Database(const std::string& path) {
        const int opened = ::sqlite3_open(path.c_str(), &handle);
        check(opened == SQLITE_OK, handle);
        ::sqlite3_busy_timeout(handle, 10'000);
        execute("PRAGMA journal_mode = WAL");
        execute("PRAGMA synchronous = OFF");
    }
    ~Database() { ::sqlite3_close(handle); }

    Database(const Database&) = delete;
    Database& operator=(const Database&) = delete;

    void execute(const char* text) {
        check(::sqlite3_exec(handle, text, nullptr, nullptr, nullptr) == SQLITE_OK, handle);
    }

    sqlite3* get() const { return handle; }

private:
    sqlite3* handle = nullptr;
};

/// A prepared statement, each use of which must be finished before the next.
class Statement {
public:
    Statement(const Database& database, const char* text)
        : database(database.get()) {
        check(::sqlite3_prepare_v3(this->database, text, -1, SQLITE_PREPARE_PERSISTENT, &handle,
                                   nullptr) == SQLITE_OK,
              this->database);
    }
    ~Statement() { ::sqlite3_finalize(handle); }

    Statement(const Statement&) = delete;
    Statement& operator=(const Statement&) = delete;

    /// The text must outlive the use.
    void bind(int position, const std::string& text) {
        ::sqlite3_bind_text(handle, position, text.data(), static_cast<int>(text.size()),
                            SQLITE_STATIC);
    }

    /// Whether there is a row, or one more.
    bool step() {
        const int result = ::sqlite3_step(handle);
        check(result == SQLITE_ROW || result == SQLITE_DONE, database);
        return result == SQLITE_ROW;
    }

    Data row() const { return {column(0), column(1)}; }

    void finish() { ::sqlite3_reset(handle); }

private:
    std::string column(int number) const {
        const auto* text = ::sqlite3_column_text(handle, number);
        const auto size = static_cast<std::size_t>(::sqlite3_column_bytes(handle, number));
        return {reinterpret_cast<const char*>(text), size};
    }

    sqlite3* database;
    sqlite3_stmt* handle = nullptr;
};

class SqliteConnection : public Connection {
public:
    explicit SqliteConnection(const std::string& path)
        : database(path) {}

    void publish(const Entry& entry) override {
        insertion.bind(1, entry.key);
        insertion.bind(2, entry.data.first);
        insertion.bind(3, entry.data.second);
        insertion.step();
        insertion.finish();
    }

    void withdraw(const std::string& key) override {
        deletion.bind(1, key);
        deletion.step();
        deletion.finish();
    }

    std::optional<Data> find(const std::string& key) override {
        std::optional<Data> found;
        search.bind(1, key);
        if (search.step()) {
            found = search.row();
        }
        search.finish();
        return found;
    }

    std::vector<Data> list() override {
        std::vector<Data> found;
        while (listing.step()) {
            found.push_back(listing.row());
        }
        listing.finish();
        return found;
    }

private:
    Database database;
    Statement insertion{database, "INSERT INTO entries VALUES (?, ?, ?)"};
    Statement deletion{database, "DELETE FROM entries WHERE key = ?"};
    Statement search{database, "SELECT first, second FROM entries WHERE key = ?"};
    Statement listing{database, "SELECT first, second FROM entries"};
};

class SqlitePeer : public Peer {
public:
    SqlitePeer() {
        Database(path).execute("CREATE TABLE entries"
                               " (key TEXT PRIMARY KEY, first TEXT, second TEXT) WITHOUT ROWID");
    }

    std::unique_ptr<Connection> connect() override {
        return std::make_unique<SqliteConnection>(path);
    }

private:
    TemporaryFolder folder;
    std::string path = folder / "entries.sqlite";
};

} // namespace

std::unique_ptr<Peer> startSqlite() {
    return std::make_unique<SqlitePeer>();
}

} // namespace benchmarks::peers
