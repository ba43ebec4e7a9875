#include "endpointregistry/detail/EndpointMonitorImpl.h"

#include "foundation/os/SystemLimits.h"

#include <algorithm>
#include <cerrno>
#include <utility>

namespace agent::spf::endpointregistry {

namespace {

using namespace std::chrono_literals;
using foundation::os::WakeUp;
using std::chrono::steady_clock;

/// No wait needs to be longer than a year.
steady_clock::time_point endOf(std::chrono::milliseconds timeOut) {
    constexpr std::chrono::milliseconds longest = 365 * 24h;
    return steady_clock::now() + std::clamp(timeOut, 0ms, longest);
}

} // namespace

EndpointMonitor::Impl::Impl(std::string groupTag, std::set<std::string> trustees)
    : ownTag(std::move(groupTag))
    , ownTrustees(std::move(trustees))
    , wakeUp(folders.descriptor()) {
    if (!wakeUp) {
        const int error = errno;
        failToWatch(foundation::os::reasonForNoWakeUp(error), error);
    }
    for (const std::string& trustee : ownTrustees) {
        perTrustee.emplace_back(trustee, ownTag, events);
    }
    update(Doubtful::due);
    setWakeUp();
}

std::vector<EndpointMonitor::Event> EndpointMonitor::Impl::take() {
    events.keepAll(true);
    update(Doubtful::due);
    std::vector<Event> taken = events.takeAll();
    setWakeUp();
    return taken;
}

std::vector<EndpointMonitor::Event> EndpointMonitor::Impl::wait(std::chrono::milliseconds timeOut) {
    const auto end = endOf(timeOut);
    // What has just failed is not tried again before there is a reason to: whoever waits in a loop
    // and goes on after errors would do nothing else.
    if (hasFailed && wakeUp.wait(end - steady_clock::now()) != WakeUp::Reason::readable) {
        return take();
    }
    for (;;) {
        std::vector<Event> taken = take();
        const auto rest = end - steady_clock::now();
        if (!taken.empty() || rest <= 0ns) {
            return taken;
        }
        if (wakeUp.wait(rest) != WakeUp::Reason::readable) {
            return take();
        }
    }
}

const std::deque<MonitoredTrustee>& EndpointMonitor::Impl::lookUp() {
    events.keepAll(false);
    update(Doubtful::all);
    setWakeUp();
    return perTrustee;
}

void EndpointMonitor::Impl::update(Doubtful which) {
    try {
        readAll();
        lookAgain(which);
        if (noteOtherFolders()) {
            readAll();
        }
        releaseFolders();
        hasFailed = false;
    } catch (...) {
        const bool isForWantOfDescriptors = !foundation::os::hasDescriptorLeft();
        prepareNextAttempt();
        if (isForWantOfDescriptors) {
            failToWatch(foundation::os::reasonForNoDescriptor(EMFILE), EMFILE);
        }
        throw;
    }
}

void EndpointMonitor::Impl::prepareNextAttempt() noexcept {
    hasFailed = true;
    isScanDue = true;
    releaseFolders();
    // What can be neither read nor taken now must not wake anybody again and again.
    folders.discard();
    wakeUp.call(false);
    // Who waits for the descriptor shall come back, though nothing may happen any more.
    wakeUp.setAlarm(steady_clock::now() + 1s);
}

void EndpointMonitor::Impl::readAll() {
    if (isScanDue) {
        scan();
    }
    // No more than what is there by now: others may go on without end, and so may those who
    // exchange folders.
    constexpr int maxScans = 8;
    std::size_t rest = folders.pending();
    for (int scans = 0; rest > 0 || (isScanDue && scans < maxScans);) {
        if (isScanDue && scans < maxScans) {
            ++scans;
            scan();
        }
        const std::size_t size = readSome();
        rest -= size == 0 ? rest : std::min(rest, size);
    }
}

std::size_t EndpointMonitor::Impl::readSome() {
    bool isFirst = true;
    const std::size_t size = folders.read([&](const MonitorFolders::Change& change) {
        if (std::exchange(isFirst, false)) {
            for (MonitoredTrustee& trustee : perTrustee) {
                trustee.beginNotes();
            }
        }
        isScanDue = isScanDue || change.isOfFolders;
        // What is to be compared anew anyway need not be examined now.
        if (!isScanDue && change.trustee) {
            perTrustee[*change.trustee].note(change.detail);
        }
    });
    noteOtherFolders();
    return size;
}

bool EndpointMonitor::Impl::noteOtherFolders() {
    const bool areThere = std::any_of(perTrustee.begin(), perTrustee.end(),
                                      [](const auto& trustee) { return trustee.hasOtherFolder(); });
    isScanDue = isScanDue || areThere;
    return areThere;
}

void EndpointMonitor::Impl::scan() {
    isScanDue = false;
    folders.watchAll({ownTrustees.begin(), ownTrustees.end()});
    for (MonitoredTrustee& trustee : perTrustee) {
        trustee.scan();
    }
    nextProbe = steady_clock::now() + 20ms;
}

void EndpointMonitor::Impl::lookAgain(Doubtful which) {
    const bool isAnyInDoubt = std::any_of(perTrustee.begin(), perTrustee.end(),
                                          [](const auto& trustee) { return trustee.isInDoubt(); });
    if (!isAnyInDoubt && !nextProbe) {
        return;
    }
    const Time now = steady_clock::now();
    const bool isProbeDue = nextProbe && *nextProbe <= now;
    for (MonitoredTrustee& trustee : perTrustee) {
        trustee.examineInDoubt(which, now);
        if (isProbeDue) {
            trustee.probe();
        }
    }
    if (isProbeDue) {
        nextProbe.reset();
    }
}

void EndpointMonitor::Impl::releaseFolders() {
    for (MonitoredTrustee& trustee : perTrustee) {
        trustee.releaseFolder();
    }
}

void EndpointMonitor::Impl::setWakeUp() {
    std::optional<Time> next = nextProbe;
    for (const MonitoredTrustee& trustee : perTrustee) {
        if (const auto doubt = trustee.nextDoubt(); doubt && (!next || *doubt < *next)) {
            next = doubt;
        }
    }
    wakeUp.setAlarm(next);
    wakeUp.call(events.areThere() || isScanDue);
}

} // namespace agent::spf::endpointregistry
