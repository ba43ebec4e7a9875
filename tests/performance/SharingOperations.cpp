// The operations on what is shared with a group.

#include "endpointregistry/Endpoint.h"
#include "tests/performance/Operations.h"

namespace performance {

namespace {

using agent::spf::endpointregistry::Endpoint;

Endpoint publishOwn() {
    return Endpoint::publish("unix", "/run/own", tag, "own key");
}

void addTrustees() {
    Endpoint own = publishOwn();
    measure([&] { own.clearTrustees(); }, [&] { own.addTrustees(friends); });
}

void removeTrustees() {
    Endpoint own = publishOwn();
    measure([&] { own.addTrustees(friends); }, [&] { own.removeTrustees(friends); });
}

void find() {
    measure([] { demand(Endpoint::find(tag, firstKey, friends).has_value(), "found nothing"); });
}

void findNothing() {
    measure([] { demand(!Endpoint::find(tag, "no key", friends), "found what is not there"); });
}

void findFromAllTrustees() {
    measure(
        [] { demand(Endpoint::findFromAllTrustees(tag, firstKey).has_value(), "found nothing"); });
}

void findDead() {
    measure([] { leaveDeadEntry(friends); },
            [] { demand(!Endpoint::find(tag, firstKey, friends), "found the dead"); });
}

void filter(std::size_t count) {
    measure(
        [count] { demand(Endpoint::filter(tag, friends).size() == count, "filtered wrongly"); });
}

void list(std::size_t count) {
    measure([count] { demand(Endpoint::list(friends).size() == count, "listed wrongly"); });
}

} // namespace

std::vector<Operation> sharingOperations() {
    return {
        {"addTrustees/0", 0, true, addTrustees},
        {"addTrustees/1", 1, true, addTrustees},
        {"addTrustees/100", 100, true, addTrustees},
        {"removeTrustees/0", 0, true, removeTrustees},
        {"removeTrustees/1", 1, true, removeTrustees},
        {"removeTrustees/100", 100, true, removeTrustees},
        {"findShared/1", 1, true, find},
        {"findShared/100", 100, true, find},
        {"findNothingShared/1", 1, true, findNothing},
        {"findFromAllTrustees/1", 1, true, findFromAllTrustees},
        {"findDeadShared/0", 0, true, findDead},
        {"filterShared/1", 1, true, [] { filter(1); }},
        {"filterShared/100", 100, true, [] { filter(100); }},
        {"listShared/1", 1, true, [] { list(1); }},
        {"listShared/100", 100, true, [] { list(100); }},
    };
}

} // namespace performance
