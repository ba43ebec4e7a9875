#include "endpointregistry/detail/MonitoredTrustee.h"

#include "endpointregistry/EntryName.h"
#include "endpointregistry/detail/EndpointImpl.h"
#include "endpointregistry/detail/NameListing.h"

#include <chrono>
#include <cstdint>
#include <stdexcept>
#include <unordered_set>
#include <utility>
#include <vector>

namespace agent::spf::endpointregistry {

namespace {

namespace os = foundation::os;
using os::DirectoryChange;
using Event = EndpointMonitor::Event;
using Publisher = EntryFolder::Publisher;
using Reason = MonitorDoubts::Reason;

MonitorDoubts::Time now() {
    return std::chrono::steady_clock::now();
}

} // namespace

MonitoredTrustee::MonitoredTrustee(std::string trusteeName, const std::string& groupTag,
                                   MonitorEvents& events)
    : trustee(std::move(trusteeName))
    , tagPrefix(getGroupTagPrefix(groupTag))
    , events(events) {
}

bool MonitoredTrustee::isWatched(std::string_view entry) const {
    return contains(entry, tagPrefix) && Endpoint::Impl::hasKnownVersion(std::string(entry));
}

const EntryFolder& MonitoredTrustee::folder() {
    if (!openFolder) {
        openFolder.emplace(trustee);
        isElsewhere = isElsewhere || openFolder->identity() != scanned;
    }
    return *openFolder;
}

const MonitoredEntry* MonitoredTrustee::find(std::string_view tagPrefix,
                                             std::string_view keyPart) const {
    const MonitorTable::Found found = table.find(tagPrefix, keyPart);
    if (!found.isOneOfSeveral) {
        return found.entry;
    }
    // Of several, a lookup takes the one that the folder lists first.
    const MonitoredEntry* first = nullptr;
    EntryFolder(trustee).anyName([&](std::string_view name) {
        if (contains(name, keyPart) && contains(name, tagPrefix)) {
            first = table.withName(name);
        }
        return first != nullptr;
    });
    return first != nullptr ? first : found.entry;
}

void MonitoredTrustee::note(const DirectoryChange& change) {
    if (change.inode) {
        // That of an entry that is not known was withdrawn, or never seen with a publisher.
        for (const auto& entries :
             {table.withInode(*change.inode), doubts.withInode(*change.inode)}) {
            for (const std::string& entry : entries) {
                examine(entry, Cause::closing);
            }
        }
    } else if (isWatched(change.name)) {
        noteNamed(std::string(change.name), change.kind);
    }
}

void MonitoredTrustee::noteNamed(const std::string& entry, DirectoryChange::Kind kind) {
    using Kind = DirectoryChange::Kind;
    if (kind == Kind::closed) {
        examine(entry, Cause::closing);
    } else if (examined.contains(entry)) {
        return;
    } else if (kind == Kind::appeared && table.withName(entry) == nullptr) {
        if (expect(entry)) {
            examined.insert(entry);
        }
    } else {
        examine(entry, kind == Kind::touched ? Cause::readiness : Cause::change);
        examined.insert(entry);
    }
}

bool MonitoredTrustee::expect(const std::string& entry) {
    // Nearly always there are no data yet, and its publisher will tell when they are there.
    const auto file = folder().identityOf(entry);
    if (file && !doubts.has(entry, file->inode, Reason::closed)) {
        doubts.add(entry, file->inode, Reason::notReady, now());
    }
    return !file;
}

void MonitoredTrustee::scan() {
    openFolder.emplace(trustee);
    scanned = openFolder->identity();
    isElsewhere = false;
    const std::vector<std::string> listed =
        openFolder->names([this](std::string_view entry) { return isWatched(entry); });
    // The known ones first, so that the end of an entry is told before its successor.
    const std::vector<std::string> known = knownEntries();
    for (const std::string& entry : known) {
        examine(entry, Cause::change);
    }
    const std::unordered_set<std::string_view> isKnown(known.begin(), known.end());
    for (const std::string& entry : listed) {
        if (!isKnown.contains(entry)) {
            examine(entry, Cause::change);
        }
    }
}

std::vector<std::string> MonitoredTrustee::knownEntries() const {
    std::vector<std::string> known;
    table.visit(tagPrefix, [&](const MonitoredEntry& entry) { known.push_back(entry.name); });
    return known;
}

void MonitoredTrustee::probe() {
    for (const std::string& entry : knownEntries()) {
        if (folder().publisherOf(entry) != Publisher::alive) {
            examine(entry, Cause::change);
        }
    }
}

void MonitoredTrustee::examineInDoubt(Doubtful which, MonitorDoubts::Time time) {
    constexpr auto end = MonitorDoubts::Time::max();
    for (const std::string& entry : doubts.due(which == Doubtful::all ? end : time)) {
        examine(entry, Cause::doubt);
        doubts.prolong(entry, time);
    }
}

Endpoint::DataPair MonitoredTrustee::read(const std::string& entry) {
    try {
        auto data = Endpoint::Impl::getDataPairs({entry}, folder());
        return data.empty() ? Endpoint::DataPair() : std::move(data.front());
    } catch (const std::out_of_range&) {
        return {}; // Its data contradicts its name, and that is no reason to miss all others.
    }
}

void MonitoredTrustee::examine(const std::string& entry, Cause cause) {
    while (!examineOnce(entry, cause)) {
    }
}

bool MonitoredTrustee::examineOnce(const std::string& entry, Cause cause) {
    const auto file = folder().identityOf(entry);
    if (!file) {
        drop(entry);
        doubts.remove(entry);
        return true;
    }
    const MonitoredEntry* const known = table.withName(entry);
    const bool isSame = known != nullptr && known->file == *file;
    if (isSame && cause == Cause::readiness) {
        return true;
    }
    Endpoint::DataPair data = read(entry);
    const bool isReadable = data != Endpoint::DataPair();
    if (isReadable && folder().identityOf(entry) != file) {
        return false; // The data may be that of another publication.
    }
    if (!isSame || data != known->data) {
        drop(entry);
    }
    if (isReadable) {
        keep(entry, std::move(data), *file);
    }
    considerAgain(entry, file->inode, cause, isReadable);
    return true;
}

void MonitoredTrustee::keep(const std::string& entry, Endpoint::DataPair data,
                            os::FileIdentity file) {
    if (table.withName(entry) == nullptr) {
        const std::uint64_t appearance =
            events.add({Event::Kind::appeared, entry, data, trustee, getPidFromName(entry)});
        table.insert({entry, std::move(data), file, appearance});
    }
}

void MonitoredTrustee::drop(const std::string& entry) {
    if (const MonitoredEntry* const known = table.withName(entry)) {
        events.addDisappearance(
            {Event::Kind::disappeared, entry, known->data, trustee, getPidFromName(entry)},
            known->appearance);
        table.erase(entry);
    }
}

void MonitoredTrustee::considerAgain(const std::string& entry, ino_t inode, Cause cause,
                                     bool isReadable) {
    const bool isLocked = isReadable || folder().publisherOf(entry) == Publisher::alive;
    if (isLocked && cause == Cause::closing) {
        doubts.add(entry, inode, Reason::closed, now());
    } else if (isLocked && doubts.has(entry, inode, Reason::closed)) {
        return; // Whatever it looks like.
    } else if (!isLocked || isReadable) {
        doubts.remove(entry);
    } else if (!doubts.has(entry, inode, Reason::notReady)) {
        doubts.add(entry, inode, Reason::notReady, now());
    }
}

} // namespace agent::spf::endpointregistry
