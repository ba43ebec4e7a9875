#pragma once

#include <chrono>
#include <cstdint>
#include <optional>
#include <sys/types.h>

namespace agent::spf::endpointregistry {

/// Who holds a lock, as the holder says. It lets those who wait tell one holder that does not let
/// go from many that take turns.
///
/// Whoever can open the file can place a mark, any number of them, with any content. So a mark is
/// believed for nothing but a message to a person, and for how long to wait.
struct HolderMark {
    /// The holder's process id, as its own process namespace numbers it.
    pid_t process;
    /// Tells one taking of the lock from the next by the same process: some bits of the time at
    /// which it was marked.
    std::uint64_t number;

    /// How long ago that was. Begins anew after a quarter of an hour.
    std::chrono::nanoseconds age() const noexcept;

    bool operator==(const HolderMark&) const = default;
};

// The mark is a lock of a single byte far behind the file's end, and where that byte is says it.
// Nothing can be written into the files themselves, which their owners may only read. It meets no
// flock, needs no permission to write, and goes with the open file, also when the holder is killed.

/// Marks the open file as held by that process. Where the system has no room for one more lock, it
/// stays unmarked.
void markHolder(int fd, pid_t process) noexcept;

/// Takes the mark back, also from copies of the descriptor in other processes.
void unmarkHolder(int fd) noexcept;

/// The mark that another open file has placed on the same file; nothing where there is none. Of
/// several it is any.
std::optional<HolderMark> findHolder(int fd) noexcept;

} // namespace agent::spf::endpointregistry
