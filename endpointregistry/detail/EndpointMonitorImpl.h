#pragma once

#include "endpointregistry/EndpointMonitor.h"
#include "endpointregistry/detail/MonitorEvents.h"
#include "endpointregistry/detail/MonitorFolders.h"
#include "endpointregistry/detail/MonitoredTrustee.h"
#include "foundation/os/WakeUp.h"

#include <chrono>
#include <cstddef>
#include <deque>
#include <optional>
#include <set>
#include <string>
#include <vector>

namespace agent::spf::endpointregistry {

/// The state behind an `EndpointMonitor`.
class EndpointMonitor::Impl {
public:
    Impl(std::string groupTag, std::set<std::string> trustees);

    Impl(const Impl&) = delete;
    Impl& operator=(const Impl&) = delete;

    const std::string& groupTag() const { return ownTag; }
    const std::set<std::string>& trustees() const { return ownTrustees; }
    int descriptor() const { return wakeUp.descriptor(); }

    std::vector<Event> take();
    std::vector<Event> wait(std::chrono::milliseconds timeOut);

    /// What is known of each trustee's entries, in ascending order of the trustees, once all that
    /// has happened so far is known.
    const std::deque<MonitoredTrustee>& lookUp();

private:
    using Time = std::chrono::steady_clock::time_point;

    using Doubtful = MonitoredTrustee::Doubtful;

    /// Learns what has happened. When it throws, the next call compares all that is known anew.
    void update(Doubtful which);
    void prepareNextAttempt() noexcept;
    void readAll();
    std::size_t readSome();
    /// Whether a folder is another one than was scanned, so that a scan is due.
    bool noteOtherFolders();
    void scan();
    void lookAgain(Doubtful which);
    void releaseFolders();
    void setWakeUp();

    std::string ownTag;
    std::set<std::string> ownTrustees;
    MonitorEvents events;
    std::deque<MonitoredTrustee> perTrustee;
    MonitorFolders folders;
    foundation::os::WakeUp wakeUp;
    /// Whether all folders are to be watched and read anew.
    bool isScanDue = true;
    /// Whether the last attempt to learn what has happened has failed.
    bool hasFailed = false;
    /// When the known entries are to be probed after a scan: a file that was closed just before it
    /// was watched may have kept its lock for a moment longer.
    std::optional<Time> nextProbe;
};

} // namespace agent::spf::endpointregistry
