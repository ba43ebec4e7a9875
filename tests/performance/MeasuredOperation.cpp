// measured_operation [NAME]
//
// Performs an operation of the registry between two marks that whoever traces this process's system
// calls sees. Everybody else that the operation needs is another process, and what they do is not
// this one's. Without a name it lists the operations.
//
// It runs isolated only: there the registry is empty, and users and groups are looked up in two
// short files, whatever databases the machine has.

#include "endpointregistry/Endpoint.h"
#include "tests/endpointregistry/LockedFileTools.h"
#include "tests/performance/Operations.h"
#include "tests/support/ForkedProcess.h"
#include "tests/support/Isolation.h"
#include "tests/support/TestAccounts.h"

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <exception>
#include <iostream>
#include <malloc.h>
#include <memory>
#include <optional>
#include <stdexcept>
#include <string_view>
#include <unistd.h>

namespace performance {

namespace {

namespace accounts = tests::accounts;
using agent::spf::endpointregistry::Endpoint;

/// A call that changes nothing and that nobody else makes.
void mark(std::string_view text) {
    demand(::write(-1, text.data(), text.size()) == -1 && errno == EBADF, "a mark was written");
}

std::vector<Endpoint> publish(std::size_t count, const Trustees& trustees) {
    std::vector<Endpoint> endpoints;
    for (std::size_t i = 0; i < count; ++i) {
        const std::string number = std::to_string(i);
        endpoints.push_back(
            Endpoint::publish("unix", "/run/service-" + number, tag, "key " + number));
        endpoints.back().addTrustees(trustees);
    }
    return endpoints;
}

/// A process that publishes so many entries for as long as the object lives.
class Publisher {
public:
    Publisher(const std::string& user, std::size_t count, const Trustees& trustees)
        : process([&](tests::Channel& channel) {
            if (accounts::available()) {
                accounts::become(user);
            }
            const auto endpoints = publish(count, trustees);
            channel.send("published");
            channel.receive();
        }) {
        process.channel().receive();
    }

    /// Another user's process cannot be killed.
    ~Publisher() { process.channel().send("end"); }

    Publisher(const Publisher&) = delete;
    Publisher& operator=(const Publisher&) = delete;

private:
    tests::ForkedProcess process;
};

/// Keeps the calls of the heap out, which depend on all that the process did before: it takes
/// enough memory beforehand and gives none back. Blocks that are too large for the heap are still
/// the operation's.
void settleHeap() {
    constexpr int size = 16 << 20;
    constexpr int usualLimit = 128 << 10;
    demand(::mallopt(M_TRIM_THRESHOLD, 2 * size) == 1 && ::mallopt(M_MMAP_THRESHOLD, size) == 1,
           "the heap takes no options");
    const auto block = std::make_unique_for_overwrite<char[]>(size / 2);
    ::explicit_bzero(block.get(), 1); // Or the compiler leaves both out.
    demand(::mallopt(M_MMAP_THRESHOLD, usualLimit) == 1, "the heap takes no options");
}

int perform(const Operation& operation) {
    if (operation.concernsGroups && !accounts::available()) {
        std::cerr << accounts::whyNot << '\n';
        return tests::skippedStatus;
    }
    settleHeap();
    if (operation.concernsGroups) {
        tests::provideSharedFolder();
    }
    std::optional<Publisher> publisher;
    if (operation.others > 0) {
        if (operation.concernsGroups) {
            publisher.emplace(accounts::ben, operation.others, friends);
        } else {
            publisher.emplace(accounts::anna, operation.others, nobody);
        }
    }
    if (accounts::available()) {
        accounts::become(accounts::anna);
    }
    operation.perform();
    return EXIT_SUCCESS;
}

std::vector<Operation> allOperations() {
    std::vector<Operation> all = entryOperations();
    for (const auto& more : {sharingOperations(), arrayOperations(), monitorOperations()}) {
        all.insert(all.end(), more.begin(), more.end());
    }
    return all;
}

int run(std::string_view name) {
    // NOLINTNEXTLINE(concurrency-mt-unsafe): there is one thread
    demand(std::getenv(tests::isolatedVariable) != nullptr, "not isolated");
    const auto operations = allOperations();
    const auto operation =
        std::find_if(operations.begin(), operations.end(),
                     [name](const Operation& candidate) { return candidate.name == name; });
    demand(operation != operations.end(), "no such operation");
    return perform(*operation);
}

} // namespace

void measure(const std::function<void()>& prepare, const std::function<void()>& operation) {
    prepare();
    operation();
    prepare();
    mark("begin");
    operation();
    mark("end");
}

void measure(const std::function<void()>& operation) {
    measure([] {}, operation);
}

void demand(bool isTrue, const char* what) {
    if (!isTrue) {
        throw std::runtime_error(what);
    }
}

void leaveDeadEntry(const Trustees& trustees) {
    demand(tests::runInChild([&trustees] {
               const auto endpoints = publish(1, trustees);
               ::_exit(EXIT_SUCCESS);
           }) == EXIT_SUCCESS,
           "nothing was published");
}

} // namespace performance

int main(int argc, char** argv) {
    try {
        if (argc > 1) {
            return performance::run(argv[1]);
        }
        for (const performance::Operation& operation : performance::allOperations()) {
            std::cout << operation.name << '\n';
        }
        return EXIT_SUCCESS;
    } catch (const std::exception& error) {
        std::cerr << "measured_operation: " << error.what() << '\n';
        return EXIT_FAILURE;
    }
}
