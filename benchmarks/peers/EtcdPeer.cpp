// etcd, a single member with its data on tmpfs, asked through its JSON interface over one
// connection that is kept, on a Unix socket. Entries hang on a lease of their owner, so that they
// go when the owner no longer renews it. Look-ups are serializable: with one member, they see all
// that was put, and are spared the leader's confirmation.

#include "benchmarks/peers/Base64.h"
#include "benchmarks/peers/Peer.h"
#include "benchmarks/peers/Server.h"

#include <chrono>
#include <curl/curl.h>
#include <nlohmann/json.hpp>
#include <poll.h>
#include <stdexcept>

namespace benchmarks::peers {

namespace {

using nlohmann::json;
using std::chrono::steady_clock;

/// Shorter ones would not survive a machine that is busy for a while.
constexpr std::chrono::seconds leaseTime{5};
constexpr std::chrono::seconds renewalInterval{1};

class Http {
public:
    explicit Http(const std::string& socket) {
        if (!handle || !headers) {
            throw std::runtime_error("cannot set curl up");
        }
        ::curl_easy_setopt(handle.get(), CURLOPT_UNIX_SOCKET_PATH, socket.c_str());
        ::curl_easy_setopt(handle.get(), CURLOPT_HTTPHEADER, headers.get());
        ::curl_easy_setopt(handle.get(), CURLOPT_WRITEFUNCTION, append);
        ::curl_easy_setopt(handle.get(), CURLOPT_WRITEDATA, &answer);
        ::curl_easy_setopt(handle.get(), CURLOPT_FAILONERROR, 1L);
    }

    Http(const Http&) = delete;
    Http& operator=(const Http&) = delete;

    json post(const std::string& path, const json& request) {
        const std::string body = request.dump();
        ::curl_easy_setopt(handle.get(), CURLOPT_URL, ("http://etcd" + path).c_str());
        ::curl_easy_setopt(handle.get(), CURLOPT_POSTFIELDSIZE, static_cast<long>(body.size()));
        ::curl_easy_setopt(handle.get(), CURLOPT_POSTFIELDS, body.c_str());
        answer.clear();
        const CURLcode result = ::curl_easy_perform(handle.get());
        if (result != CURLE_OK) {
            throw std::runtime_error("etcd, " + path + ": " + ::curl_easy_strerror(result));
        }
        return json::parse(answer);
    }

private:
    static std::size_t append(const char* data, std::size_t size, std::size_t count, void* answer) {
        static_cast<std::string*>(answer)->append(data, size * count);
        return size * count;
    }

    std::string answer;
    std::unique_ptr<CURL, decltype(&::curl_easy_cleanup)> handle{::curl_easy_init(),
                                                                 ::curl_easy_cleanup};
    std::unique_ptr<curl_slist, decltype(&::curl_slist_free_all)> headers{
        ::curl_slist_append(nullptr, "Content-Type: application/json"), ::curl_slist_free_all};
};

class EtcdConnection : public Connection {
public:
    EtcdConnection(const std::string& socket, std::string prefix)
        : http(socket)
        , prefix(std::move(prefix)) {}

    void publish(const Entry& entry) override {
        renewLease();
        http.post("/v3/kv/put", {{"key", toKey(entry.key)},
                                 {"value", encodeBase64(join(entry.data))},
                                 {"lease", lease}});
    }

    void withdraw(const std::string& key) override {
        http.post("/v3/kv/deleterange", {{"key", toKey(key)}});
    }

    std::optional<Data> find(const std::string& key) override {
        const auto found = request({{"key", toKey(key)}, {"serializable", true}});
        return found.empty() ? std::nullopt : std::optional(found.front());
    }

    std::vector<Data> list() override {
        std::string behind = prefix;
        ++behind.back();
        return request({{"key", encodeBase64(prefix)},
                        {"range_end", encodeBase64(behind)},
                        {"serializable", true}});
    }

    void serve(int end) override {
        constexpr auto interval = std::chrono::milliseconds(renewalInterval).count();
        pollfd ended{end, POLLIN, 0};
        while (::poll(&ended, 1, static_cast<int>(interval)) <= 0) {
            keepLease();
        }
    }

private:
    std::string toKey(const std::string& key) const { return encodeBase64(prefix + key); }

    std::vector<Data> request(const json& range) {
        std::vector<Data> found;
        const json answer = http.post("/v3/kv/range", range);
        if (answer.contains("kvs")) {
            for (const json& pair : answer["kvs"]) {
                found.push_back(split(decodeBase64(pair["value"].get_ref<const std::string&>())));
            }
        }
        return found;
    }

    /// Keeps the lease, as an owner's timer would; gets one first of all, and when it has run out
    /// while there was nothing to publish.
    void renewLease() {
        const auto now = steady_clock::now();
        if (!lease.empty() && now - renewed < renewalInterval) {
            return;
        }
        renewed = now;
        if (lease.empty() || !keepLease()) {
            lease = http.post("/v3/lease/grant", {{"TTL", leaseTime.count()}})["ID"];
        }
    }

    bool keepLease() {
        const json answer = http.post("/v3/lease/keepalive", {{"ID", lease}});
        return answer.at("result").contains("TTL");
    }

    Http http;
    std::string prefix;
    std::string lease;
    steady_clock::time_point renewed;
};

class EtcdServer {
public:
    EtcdServer() {
        server.waitUntil([this] {
            try {
                Http(socket).post("/v3/kv/range", {{"key", encodeBase64("?")}});
                return true;
            } catch (const std::exception&) {
                return false;
            }
        });
    }

    const std::string& getSocket() const { return socket; }

private:
    TemporaryFolder folder;
    // It wants a port in the name of a socket, too.
    std::string socket = folder / "client:0";
    Server server{{"etcd", "--name", "single", "--data-dir", "data", "--log-level", "error",
                   "--listen-client-urls", "unix://client:0", "--advertise-client-urls",
                   "unix://client:0", "--listen-peer-urls", "unix://peer:0",
                   "--initial-advertise-peer-urls", "unix://peer:0", "--initial-cluster",
                   "single=unix://peer:0"},
                  folder.get()};
};

/// All share one server, each with a prefix of its own: an idle server takes more than 1 % of a
/// core from what else is measured.
class EtcdPeer : public Peer {
public:
    EtcdPeer() {
        static std::weak_ptr<EtcdServer> shared;
        static int count = 0;
        server = shared.lock();
        if (!server) {
            server = std::make_shared<EtcdServer>();
            shared = server;
        }
        prefix = "benchmark " + std::to_string(++count) + "/";
    }

    std::unique_ptr<Connection> connect() override {
        return std::make_unique<EtcdConnection>(server->getSocket(), prefix);
    }

private:
    std::shared_ptr<EtcdServer> server;
    std::string prefix;
};

} // namespace

std::unique_ptr<Peer> startEtcd() {
    return std::make_unique<EtcdPeer>();
}

} // namespace benchmarks::peers
