#pragma once

#include <chrono>
#include <map>
#include <optional>
#include <string>
#include <sys/types.h>
#include <vector>

namespace agent::spf::endpointregistry {

/// The entries that a monitor has to look at once more, though nobody may tell it to.
///
/// They are looked at at growing intervals, the first in a moment and the last after a minute, and
/// then given up.
class MonitorDoubts {
public:
    using Time = std::chrono::steady_clock::time_point;

    enum class Reason {
        /// It has no data yet. Its publication takes less time and tells when it is complete, but
        /// not every publisher does.
        notReady,
        /// What its publisher had open was closed, and still is locked: the system tells of the
        /// closing just before it drops the lock.
        closed,
    };

    bool areNone() const { return doubts.empty(); }

    /// When the next one is due.
    std::optional<Time> next() const;

    std::vector<std::string> due(Time now) const;

    /// Those whose file this is.
    std::vector<std::string> withInode(ino_t inode) const;

    bool has(const std::string& entry, ino_t inode, Reason reason) const;

    /// Begins anew with this entry.
    void add(const std::string& entry, ino_t inode, Reason reason, Time now);

    /// If this entry is due, keeps it with a longer interval from now on.
    void prolong(const std::string& entry, Time now);

    void remove(const std::string& entry) { doubts.erase(entry); }

private:
    struct Doubt {
        ino_t inode;
        Reason reason;
        Time due;
        std::chrono::milliseconds interval;
    };

    std::map<std::string, Doubt> doubts;
};

} // namespace agent::spf::endpointregistry
