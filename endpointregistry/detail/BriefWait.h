#pragma once

#include <chrono>
#include <sched.h>

namespace agent::spf::endpointregistry {

/// Repeats an attempt until it succeeds, giving way in between, and tells whether it did. For what
/// others are done with in a moment: the patience is for one of them that was stopped in it. It is
/// a time and no number of attempts, for on a busy machine each giving way may take a while.
template<typename Attempt>
bool tryBriefly(std::chrono::milliseconds patience, Attempt attempt) {
    if (attempt()) {
        return true;
    }
    const auto limit = std::chrono::steady_clock::now() + patience;
    do {
        ::sched_yield();
        if (attempt()) {
            return true;
        }
    } while (std::chrono::steady_clock::now() < limit);
    return false;
}

} // namespace agent::spf::endpointregistry
