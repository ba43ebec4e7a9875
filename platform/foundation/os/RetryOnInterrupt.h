#pragma once

#include <cerrno>

namespace foundation::os {

/// Repeats a system call for as long as a signal interrupts it; returns what it returned at last.
template<typename Call>
auto retryOnInterrupt(Call call) {
    auto result = call();
    while (result == -1 && errno == EINTR) {
        result = call();
    }
    return result;
}

} // namespace foundation::os
