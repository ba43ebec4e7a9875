#pragma once

#include <algorithm>
#include <chrono>
#include <thread>

namespace foundation::os {

/// Repeats an attempt until it succeeds or the time is over, and tells whether it did. It sleeps in
/// between, briefly at first: what is waited for is mostly over in a moment, and the time is for
/// somebody who was stopped in it. With no time at all, there is one attempt.
template<typename Attempt>
bool retryFor(std::chrono::milliseconds timeout, Attempt attempt) {
    constexpr std::chrono::microseconds longestPause{2000};
    std::chrono::microseconds pause{50};
    const auto limit = std::chrono::steady_clock::now() + timeout;
    while (!attempt()) {
        if (std::chrono::steady_clock::now() >= limit) {
            return false;
        }
        std::this_thread::sleep_for(pause);
        pause = std::min(2 * pause, longestPause);
    }
    return true;
}

} // namespace foundation::os
