// D-Bus: a bus of its own. An entry is a well-known name, which the bus takes away from an owner
// that dies; its data is what the owner answers. So a look-up is one call, which the bus passes on
// to the owner, and a list is the names of the bus and then such a call for each of them, all of
// them under way at once.

#include "benchmarks/peers/Peer.h"
#include "benchmarks/peers/Server.h"

#include <algorithm>
#include <array>
#include <cstring>
#include <fstream>
#include <map>
#include <poll.h>
#include <stdexcept>
#include <string_view>
#include <system_error>
#include <systemd/sd-bus.h>

namespace benchmarks::peers {

namespace {

constexpr const char* path = "/";
constexpr const char* interface = "benchmark.Entry";
constexpr const char* member = "GetData";
const std::string namePrefix = "benchmark.";

// No limit of the bus matters, and everybody may do everything.
constexpr const char* configuration = R"(<busconfig>
  <listen>unix:path=bus.sock</listen>
  <auth>EXTERNAL</auth>
  <policy context="default">
    <allow user="*"/>
    <allow own="*"/>
    <allow send_destination="*"/>
    <allow receive_sender="*"/>
  </policy>
  <limit name="max_names_per_connection">100000</limit>
  <limit name="max_replies_per_connection">100000</limit>
</busconfig>
)";

using Bus = std::unique_ptr<sd_bus, decltype(&::sd_bus_close_unref)>;
using Message = std::unique_ptr<sd_bus_message, decltype(&::sd_bus_message_unref)>;

int check(int result) {
    if (result < 0) {
        throw std::system_error(-result, std::generic_category(), "D-Bus");
    }
    return result;
}

Message own(sd_bus_message* message) {
    return {message, ::sd_bus_message_unref};
}

Bus open(const std::string& socket) {
    sd_bus* bus = nullptr;
    check(::sd_bus_new(&bus));
    Bus owned(bus, ::sd_bus_close_unref);
    check(::sd_bus_set_address(bus, ("unix:path=" + socket).c_str()));
    check(::sd_bus_set_bus_client(bus, 1));
    check(::sd_bus_start(bus));
    return owned;
}

/// Keys of entries have a blank, which names on the bus may not have, and nothing else amiss.
std::string toName(std::string key) {
    std::replace(key.begin(), key.end(), ' ', '_');
    return namePrefix + key;
}

Data readData(sd_bus_message* message) {
    const char* first = nullptr;
    const char* second = nullptr;
    check(::sd_bus_message_read(message, "ss", &first, &second));
    return {first, second};
}

/// The replies to a list's calls, as they arrive.
struct Answers {
    std::vector<Data> found;
    std::size_t arrived = 0;

    static int add(sd_bus_message* message, void* answers, sd_bus_error*) {
        auto& self = *static_cast<Answers*>(answers);
        ++self.arrived;
        if (::sd_bus_message_is_method_error(message, nullptr) == 0) {
            self.found.push_back(readData(message));
        }
        return 0;
    }
};

class DBusConnection : public Connection {
public:
    explicit DBusConnection(const std::string& socket)
        : bus(open(socket)) {
        check(::sd_bus_add_object(bus.get(), nullptr, path, answer, &entries));
    }

    void publish(const Entry& entry) override {
        const std::string name = toName(entry.key);
        check(::sd_bus_request_name(bus.get(), name.c_str(), 0));
        entries[name] = entry.data;
        takeNews();
    }

    void withdraw(const std::string& key) override {
        const std::string name = toName(key);
        check(::sd_bus_release_name(bus.get(), name.c_str()));
        entries.erase(name);
        takeNews();
    }

    std::optional<Data> find(const std::string& key) override {
        const Message call = createCall(toName(key).c_str());
        sd_bus_message* reply = nullptr;
        sd_bus_error error = SD_BUS_ERROR_NULL;
        const int result = ::sd_bus_call(bus.get(), call.get(), 0, &error, &reply);
        const bool isAbsent = ::sd_bus_error_has_name(&error, SD_BUS_ERROR_SERVICE_UNKNOWN) != 0 ||
                              ::sd_bus_error_has_name(&error, SD_BUS_ERROR_NO_REPLY) != 0;
        ::sd_bus_error_free(&error);
        if (isAbsent) {
            return std::nullopt;
        }
        check(result);
        return readData(own(reply).get());
    }

    std::vector<Data> list() override {
        char** names = nullptr;
        check(::sd_bus_list_names(bus.get(), &names, nullptr));
        Answers answers;
        std::size_t calls = 0;
        for (char** name = names; *name != nullptr; ++name) {
            if (std::string_view(*name).starts_with(namePrefix)) {
                check(::sd_bus_call_async(bus.get(), nullptr, createCall(*name).get(), Answers::add,
                                          &answers, 0));
                ++calls;
            }
            ::free(*name);
        }
        ::free(names);
        while (answers.arrived < calls) {
            if (check(::sd_bus_process(bus.get(), nullptr)) == 0) {
                check(::sd_bus_wait(bus.get(), UINT64_MAX));
            }
        }
        return answers.found;
    }

    void serve(int end) override {
        std::array<pollfd, 2> waiting{{{end, POLLIN, 0}, {::sd_bus_get_fd(bus.get()), POLLIN, 0}}};
        while ((waiting[0].revents & (POLLIN | POLLHUP)) == 0) {
            takeNews();
            waiting[1].events = static_cast<short>(::sd_bus_get_events(bus.get()));
            ::poll(waiting.data(), waiting.size(), -1);
        }
    }

private:
    using Entries = std::map<std::string, Data>;

    /// Called for what is sent to names of this connection.
    static int answer(sd_bus_message* call, void* entries, sd_bus_error*) {
        const auto& all = *static_cast<Entries*>(entries);
        const auto found = all.find(::sd_bus_message_get_destination(call));
        if (found == all.end() || std::strcmp(::sd_bus_message_get_member(call), member) != 0) {
            return 0;
        }
        const Data& data = found->second;
        return ::sd_bus_reply_method_return(call, "ss", data.first.c_str(), data.second.c_str());
    }

    /// Handles what has arrived: calls, and the bus's confirmations of names, which would pile up.
    void takeNews() {
        while (check(::sd_bus_process(bus.get(), nullptr)) > 0) {
        }
    }

    Message createCall(const char* name) {
        sd_bus_message* call = nullptr;
        check(::sd_bus_message_new_method_call(bus.get(), &call, name, path, interface, member));
        return own(call);
    }

    Entries entries;
    Bus bus;
};

class DBusPeer : public Peer {
public:
    DBusPeer() {
        std::ofstream(folder / "bus.conf") << configuration;
        server.emplace(std::vector<std::string>{"dbus-daemon", "--config-file=bus.conf", "--nofork",
                                                "--nopidfile"},
                       folder.get());
        server->waitUntil([this] {
            try {
                const char* name = nullptr;
                return ::sd_bus_get_unique_name(open(socket).get(), &name) >= 0;
            } catch (const std::system_error&) {
                return false;
            }
        });
    }

    std::unique_ptr<Connection> connect() override {
        return std::make_unique<DBusConnection>(socket);
    }

private:
    TemporaryFolder folder;
    std::string socket = folder / "bus.sock";
    std::optional<Server> server;
};

} // namespace

std::unique_ptr<Peer> startDBus() {
    return std::make_unique<DBusPeer>();
}

} // namespace benchmarks::peers
