#pragma once

#include "foundation/os/FileDescriptor.h"

#include <chrono>
#include <optional>
#include <string>

namespace foundation::os {

/// Owner of one descriptor that becomes readable for any of three reasons: another descriptor has
/// become readable, a time has come, or there is a call.
///
/// One thread at a time uses it, but for the descriptor, on which any may wait.
class WakeUp {
public:
    using Time = std::chrono::steady_clock::time_point;

    /// For a descriptor that outlives this. Empty, with errno set, when the system refuses.
    explicit WakeUp(int awaited) noexcept;

    explicit operator bool() const noexcept { return static_cast<bool>(any); }

    int descriptor() const noexcept { return any.get(); }

    /// Sets the time from which on the descriptor is readable; none for never. An earlier one that
    /// was set before and is still to come is kept: to be woken for nothing now and then costs less
    /// than to tell the system of every change.
    void setAlarm(std::optional<Time> time) noexcept;

    /// Keeps the descriptor readable, or no longer.
    void call(bool isCalled) noexcept;

    enum class Reason { readable, timeOut, signal };

    /// Waits until the descriptor is readable, a signal was handled, or the time is over, which may
    /// be none.
    Reason wait(std::chrono::nanoseconds timeOut) const noexcept;

private:
    FileDescriptor any;
    FileDescriptor timer;
    FileDescriptor flag;
    std::optional<Time> alarm;
    bool isCalled = false;
};

/// Why there is no such descriptor, from the errno value of `WakeUp`, as `reasonForNoDescriptor`
/// tells it.
std::string reasonForNoWakeUp(int error);

} // namespace foundation::os
