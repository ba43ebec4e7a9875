// The registry behind the interface of its peers, where they are compared in a way that its own
// benchmarks do not.

#include "benchmarks/peers/Peer.h"
#include "endpointregistry/Endpoint.h"

#include <map>

namespace benchmarks::peers {

namespace {

using agent::spf::endpointregistry::Endpoint;

const std::string groupTag = "benchmark";

class RegistryConnection : public Connection {
public:
    void publish(const Entry& entry) override {
        endpoints.try_emplace(entry.key, entry.data, groupTag, entry.key);
    }

    void withdraw(const std::string& key) override { endpoints.erase(key); }

    std::optional<Data> find(const std::string& key) override {
        return Endpoint::find(groupTag, key);
    }

    std::vector<Data> list() override {
        const auto found = Endpoint::list();
        return {found.begin(), found.end()};
    }

private:
    std::map<std::string, Endpoint> endpoints;
};

class RegistryPeer : public Peer {
public:
    std::unique_ptr<Connection> connect() override {
        return std::make_unique<RegistryConnection>();
    }
};

} // namespace

std::unique_ptr<Peer> startRegistry() {
    return std::make_unique<RegistryPeer>();
}

} // namespace benchmarks::peers
