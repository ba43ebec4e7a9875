#pragma once

#include "benchmarks/peers/Peer.h"
#include "foundation/os/FileDescriptor.h"

#include <cstddef>
#include <sys/types.h>

namespace benchmarks::peers {

/// Another process that publishes entries `first` to `first + count - 1`, and keeps them for as
/// long as the object lives.
class Owner {
public:
    /// Returns when all of them are published.
    Owner(Peer& peer, std::size_t first, std::size_t count);
    ~Owner();

    Owner(const Owner&) = delete;
    Owner& operator=(const Owner&) = delete;

    /// Kills the process with SIGKILL; it is gone for good when this returns.
    void kill();

private:
    void reap();

    foundation::os::FileDescriptor connection;
    pid_t child = -1;
};

} // namespace benchmarks::peers
