#pragma once

#include <algorithm>
#include <chrono>
#include <thread>

namespace foundation::os {

/// The pauses between attempts at something that is usually to be had in a moment: short at first,
/// and never long, so that whoever waits neither takes a processor nor comes late.
class Backoff {
public:
    /// Sleeps 50 us the first time, twice as long each further time, and at most 2 ms.
    void sleep() {
        std::this_thread::sleep_for(pause);
        pause = std::min(2 * pause, longest);
    }

private:
    static constexpr std::chrono::microseconds shortest{50};
    static constexpr std::chrono::microseconds longest{2000};

    std::chrono::microseconds pause = shortest;
};

/// Repeats an attempt until it succeeds or the timeout is over, sleeping in between, and tells
/// whether it succeeded. The last attempt begins when the time is over, however late that is
/// noticed; with a timeout of 0 the first one is the last.
template<typename Attempt>
bool retryFor(std::chrono::milliseconds timeout, Attempt attempt) {
    const auto begin = std::chrono::steady_clock::now();
    for (Backoff backoff;; backoff.sleep()) {
        const bool isLast = std::chrono::steady_clock::now() - begin >= timeout;
        if (attempt()) {
            return true;
        }
        if (isLast) {
            return false;
        }
    }
}

} // namespace foundation::os
