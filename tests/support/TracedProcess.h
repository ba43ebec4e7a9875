#pragma once

#include <array>
#include <cstdint>
#include <functional>
#include <sys/types.h>

namespace tests {

/// A child that is stopped at every step into or out of a system call, so that a test can kill it
/// between any two of them.
class TracedProcess {
public:
    /// Forks a child that will run `body` and then end.
    explicit TracedProcess(const std::function<void()>& body);

    /// Kills the child wherever it is, and reaps it.
    ~TracedProcess();

    TracedProcess(const TracedProcess&) = delete;
    TracedProcess& operator=(const TracedProcess&) = delete;

    pid_t pid() const { return child; }

    /// Lets the child run until it stops itself with SIGSTOP: from there on it gets interesting.
    void runToOwnStop();

    /// Lets the child run up to its `count`-th step from here. False when it ended before; it must
    /// have ended well, or std::runtime_error is thrown.
    bool run(int count);

    using Arguments = std::array<std::uint64_t, 6>;

    /// Lets the child run until it is about to make the wanted one of these system calls. False as
    /// above.
    bool runToCall(long number, const std::function<bool(const Arguments&)>& isWanted);

private:
    bool runToNextStep();

    pid_t child;
    bool isReaped = false;
};

} // namespace tests
