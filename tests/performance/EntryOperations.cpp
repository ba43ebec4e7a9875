// The operations on one's own entries.

#include "endpointregistry/Endpoint.h"
#include "tests/endpointregistry/LockedFileTools.h"
#include "tests/performance/Operations.h"

#include <filesystem>
#include <stdexcept>

namespace performance {

namespace {

using agent::spf::endpointregistry::Endpoint;

Endpoint publishOwn() {
    return Endpoint::publish("unix", "/run/own", tag, "own key");
}

void publishFirst() {
    Endpoint own;
    measure(
        [&] {
            own.reset();
            std::filesystem::remove_all(tests::privateBase());
        },
        [&] { own = publishOwn(); });
}

void publish() {
    Endpoint own;
    measure([&] { own.reset(); }, [&] { own = publishOwn(); });
}

void publishDuplicate() {
    measure([] {
        try {
            const Endpoint own({"unix", "/run/own"}, tag, firstKey);
        } catch (const Endpoint::DuplicateEndpointError&) {
            return;
        }
        throw std::runtime_error("published twice");
    });
}

void withdraw() {
    Endpoint own;
    measure([&] { own = publishOwn(); }, [&] { own.reset(); });
}

void find() {
    measure([] { demand(Endpoint::find(tag, firstKey).has_value(), "found nothing"); });
}

void findNothing() {
    measure([] { demand(!Endpoint::find(tag, "no key"), "found what is not there"); });
}

void findDead() {
    measure([] { leaveDeadEntry(nobody); },
            [] { demand(!Endpoint::find(tag, firstKey), "found the dead"); });
}

void filter(std::size_t count) {
    measure([count] { demand(Endpoint::filter(tag).size() == count, "filtered wrongly"); });
}

void list(std::size_t count) {
    measure([count] { demand(Endpoint::list().size() == count, "listed wrongly"); });
}

} // namespace

std::vector<Operation> entryOperations() {
    return {
        {"publishFirst/0", 0, false, publishFirst},
        {"publish/0", 0, false, publish},
        {"publish/1", 1, false, publish},
        {"publish/100", 100, false, publish},
        {"publishDuplicate/1", 1, false, publishDuplicate},
        {"withdraw/0", 0, false, withdraw},
        {"withdraw/100", 100, false, withdraw},
        {"find/1", 1, false, find},
        {"find/10", 10, false, find},
        {"findNothing/0", 0, false, findNothing},
        {"findNothing/100", 100, false, findNothing},
        {"findDead/0", 0, false, findDead},
        {"filter/1", 1, false, [] { filter(1); }},
        {"filter/100", 100, false, [] { filter(100); }},
        {"list/1", 1, false, [] { list(1); }},
        {"list/100", 100, false, [] { list(100); }},
    };
}

} // namespace performance
