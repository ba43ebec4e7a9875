#pragma once

#include "endpointregistry/detail/EntryFolder.h"
#include "endpointregistry/detail/MonitorDoubts.h"
#include "endpointregistry/detail/MonitorEvents.h"
#include "endpointregistry/detail/MonitorTable.h"
#include "foundation/os/DirectoryWatch.h"
#include "foundation/os/FileIdentity.h"

#include <optional>
#include <string>
#include <string_view>
#include <sys/types.h>
#include <unordered_set>
#include <vector>

namespace agent::spf::endpointregistry {

/// The entries of one trustee that a monitor knows to live, and what is to be reported about them.
///
/// Whatever is said about an entry only leads to an examination, which proves the entry as a lookup
/// does. So it does no harm to be told something twice, late, or wrongly. All calls that examine
/// throw what lookups throw.
class MonitoredTrustee {
public:
    /// The entries with this group tag, or all for the empty one. The events outlive this.
    MonitoredTrustee(std::string trusteeName, const std::string& groupTag, MonitorEvents& events);

    const std::string& name() const { return trustee; }
    const MonitorTable& entries() const { return table; }

    /// The entry that a lookup by these parts of its name finds, as `MonitorTable::find` takes
    /// them; null when there is none.
    const MonitoredEntry* find(std::string_view tagPrefix, std::string_view keyPart) const;

    /// All changes that are noted after this call have happened before it.
    void beginNotes() { examined.clear(); }

    /// Takes note of a change in the folder of the entries.
    void note(const foundation::os::DirectoryChange& change);

    /// Compares what is known with all that is in the folder.
    void scan();

    /// Whether an examination since the last scan has found another folder than that had: one was
    /// mounted over it, or a link on the way was turned elsewhere, which nobody tells.
    bool hasOtherFolder() const { return isElsewhere; }

    /// Asks of each known entry whether its publisher lives.
    void probe();

    /// Whether there are entries that are to be examined once more, and when.
    bool isInDoubt() const { return !doubts.areNone(); }
    std::optional<MonitorDoubts::Time> nextDoubt() const { return doubts.next(); }

    enum class Doubtful { due, all };

    /// Examines those whose time has come, or all of them ahead of it.
    void examineInDoubt(Doubtful which, MonitorDoubts::Time time);

    /// Forgets the folder, which the next examination finds anew. A monitor holds none for long: it
    /// would not be told when the folder is removed, and what a lookup would say may change.
    void releaseFolder() { openFolder.reset(); }

private:
    enum class Cause {
        /// The entry tells that it is ready.
        readiness,
        /// Its file appeared, vanished, or stands in a listing.
        change,
        /// What its publisher had open was closed.
        closing,
        /// It is in doubt.
        doubt,
    };

    bool isWatched(std::string_view entry) const;
    const EntryFolder& folder();
    std::vector<std::string> knownEntries() const;
    void noteNamed(const std::string& entry, foundation::os::DirectoryChange::Kind kind);
    /// Takes note of an entry that has just been begun; returns whether there is none any more.
    bool expect(const std::string& entry);
    /// The entry's data; two empty strings when a lookup would not find it.
    Endpoint::DataPair read(const std::string& entry);
    void examine(const std::string& entry, Cause cause);
    /// Examines the entry as it is now, and returns whether it was the same all the while.
    bool examineOnce(const std::string& entry, Cause cause);
    void keep(const std::string& entry, Endpoint::DataPair data, foundation::os::FileIdentity file);
    /// Forgets the entry, and reports that it is gone, if it is known.
    void drop(const std::string& entry);
    /// Decides whether an entry that has just been examined is in doubt.
    void considerAgain(const std::string& entry, ino_t inode, Cause cause, bool isReadable);

    std::string trustee;
    std::string tagPrefix;
    MonitorEvents& events;
    MonitorTable table;
    MonitorDoubts doubts;
    std::optional<EntryFolder> openFolder;
    /// The folder that was last scanned; nothing when there was none.
    std::optional<foundation::os::FileIdentity> scanned;
    bool isElsewhere = false;
    /// The entries that were examined since the notes began, and need not be so for an older
    /// change.
    std::unordered_set<std::string> examined;
};

} // namespace agent::spf::endpointregistry
