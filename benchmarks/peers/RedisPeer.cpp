// Redis on a Unix socket, keeping nothing on disk. The entries are the fields of one hash, which
// needs one round trip to be listed; keys of their own would need a search for them before.

#include "benchmarks/peers/Peer.h"
#include "benchmarks/peers/Server.h"

#include <hiredis/hiredis.h>
#include <stdexcept>

namespace benchmarks::peers {

namespace {

using Reply = std::unique_ptr<redisReply, decltype(&::freeReplyObject)>;

std::unique_ptr<redisContext, decltype(&::redisFree)> open(const std::string& socket) {
    return {::redisConnectUnix(socket.c_str()), ::redisFree};
}

class RedisConnection : public Connection {
public:
    explicit RedisConnection(const std::string& socket)
        : context(open(socket)) {
        if (!context || context->err != 0) {
            throw std::runtime_error("cannot connect to Redis");
        }
    }

    void publish(const Entry& entry) override {
        const std::string value = join(entry.data);
        const Reply reply = ask("HSETNX benchmark %b %b", entry.key.data(), entry.key.size(),
                                value.data(), value.size());
        if (reply->integer != 1) {
            throw std::runtime_error("Redis has the entry already");
        }
    }

    void withdraw(const std::string& key) override {
        ask("HDEL benchmark %b", key.data(), key.size());
    }

    std::optional<Data> find(const std::string& key) override {
        const Reply reply = ask("HGET benchmark %b", key.data(), key.size());
        if (reply->type == REDIS_REPLY_NIL) {
            return std::nullopt;
        }
        return split({reply->str, reply->len});
    }

    std::vector<Data> list() override {
        const Reply reply = ask("HVALS benchmark");
        std::vector<Data> found;
        for (std::size_t i = 0; i < reply->elements; ++i) {
            found.push_back(split({reply->element[i]->str, reply->element[i]->len}));
        }
        return found;
    }

private:
    template<typename... Arguments>
    Reply ask(const char* command, Arguments... arguments) {
        Reply reply(static_cast<redisReply*>(::redisCommand(context.get(), command, arguments...)),
                    ::freeReplyObject);
        if (!reply || reply->type == REDIS_REPLY_ERROR) {
            throw std::runtime_error(reply ? reply->str : "Redis does not answer");
        }
        return reply;
    }

    std::unique_ptr<redisContext, decltype(&::redisFree)> context;
};

class RedisPeer : public Peer {
public:
    RedisPeer() {
        server.waitUntil([this] {
            const auto context = open(socket);
            return context && context->err == 0;
        });
    }

    std::unique_ptr<Connection> connect() override {
        return std::make_unique<RedisConnection>(socket);
    }

private:
    TemporaryFolder folder;
    std::string socket = folder / "redis.sock";
    Server server{
        {"redis-server", "--port", "0", "--unixsocket", socket, "--save", "", "--appendonly", "no"},
        folder.get()};
};

} // namespace

std::unique_ptr<Peer> startRedis() {
    return std::make_unique<RedisPeer>();
}

} // namespace benchmarks::peers
