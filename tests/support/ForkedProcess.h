#pragma once

#include "foundation/os/FileDescriptor.h"

#include <functional>
#include <string>
#include <sys/types.h>

namespace tests {

/// One end of a conversation between a test and its child: whole messages, in order.
///
/// `receive` waits with a generous limit and throws std::runtime_error when it runs out or the
/// other side is gone.
class Channel {
public:
    explicit Channel(foundation::os::FileDescriptor connection);

    void send(const std::string& message);
    std::string receive();

private:
    foundation::os::FileDescriptor socket;
};

/// A child process that runs a function of the test, and ends with it.
///
/// The child exits with 0 when the function returns and no expectation in it failed, with 1
/// otherwise; it never runs the test program's own exit code. The destructor kills and reaps what
/// still runs.
class ForkedProcess {
public:
    explicit ForkedProcess(const std::function<void(Channel&)>& body);
    ~ForkedProcess();

    ForkedProcess(const ForkedProcess&) = delete;
    ForkedProcess& operator=(const ForkedProcess&) = delete;

    /// Also of a child that was reaped.
    pid_t pid() const;
    Channel& channel();

    /// Kills the child with SIGKILL and reaps it.
    void kill();

    /// Waits for the child to end by itself, with a generous limit, and returns its exit status;
    /// throws std::runtime_error when it died of a signal or did not end.
    int waitForExit();

private:
    pid_t child = -1;
    bool isReaped = false;
    Channel ownEnd;
};

/// Runs `body` in a child and returns its exit status.
int runInChild(const std::function<void()>& body);

} // namespace tests
