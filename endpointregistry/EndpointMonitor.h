#pragma once

#include "endpointregistry/Endpoint.h"

#include <chrono>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <vector>

#pragma GCC visibility push(default)

namespace agent::spf::endpointregistry {

/// Watches the entries of the registry: tells which appear and which disappear, and answers lookups
/// from memory.
///
///     EndpointMonitor monitor("worker");
///     for (;;) {
///         std::vector<EndpointMonitor::Event> events;
///         try {
///             events = monitor.wait(std::chrono::seconds(10));
///         } catch (const std::exception& error) {
///             report(error); // and go on: the next call tries again
///         }
///         for (const auto& event : events) { ... }
///     }
///
/// It has no thread and no server, and does not poll: the system notes what happens in the folders
/// of the registry, and the monitor reads that whenever it is called. What it reads is only a hint;
/// what the monitor tells it has proved as a lookup does. An entry has appeared when its data can
/// be read. It has disappeared when it is withdrawn, or when its publisher died and every copy of
/// its descriptor is closed; a killed publisher's is, by the time that `waitpid` returns it. What
/// the dead left behind is removed, as by a lookup.
///
/// The monitor takes four descriptors, and at least one more during a call. It holds no lock and no
/// folder, and other processes, its publishers included, do not notice it.
///
/// The caller's own entries are those of the effective user that made the monitor. Every call must
/// be made as that user.
///
/// Some things are only noticed with the next change in the folders that are watched: a file system
/// that is mounted over one of them, a link above them that is turned elsewhere, and that the
/// process has left a watched group, whose entries are answered from memory until then. Damage that
/// somebody does to an entry's data by hand (its segment removed, its contents overwritten) is not
/// noticed, and an entry whose data contradict its name is passed over.
///
/// One thread at a time uses an object; different objects may be used by any number of threads at
/// once, and any thread may wait for `fileDescriptor()` to become readable. A child made by fork()
/// inherits a copy that it may only destroy: of what happens, either process would read a part, so
/// that both would miss some. Until the child has called exec, ended, or destroyed its copy, it
/// keeps the monitor's watches alive after its parent's object is gone.
class EndpointMonitor {
public:
    using DataPair = Endpoint::DataPair;

    /// Something that happened to an entry.
    struct Event {
        enum class Kind { appeared, disappeared };

        Kind kind;
        /// The name of the entry, as `EntryName.h` describes it.
        std::string name;
        /// What was published.
        DataPair data;
        /// The group that the entry is shared with; empty for one of the caller's own.
        std::string trustee;
        /// The publisher's process id, as the name states it. In another namespace of process ids
        /// it means nothing.
        unsigned long publisher;
    };

    /// Watches the caller's own entries of all group tags, or of one. Throws std::runtime_error as
    /// below.
    EndpointMonitor();
    explicit EndpointMonitor(const std::string& groupTag);

    /// Watches the entries with this group tag, or all for the empty one, of these trustees: names
    /// of groups of the operating system, the empty string for the caller's own. Folders that do
    /// not exist yet are watched as soon as they do.
    ///
    /// Throws std::runtime_error where the lookups of `Endpoint` do: when a folder of the registry
    /// cannot be read or does not belong to its group, and on a machine without a shared folder
    /// when a group is named; std::invalid_argument when a folder's group is not known. Also throws
    /// std::runtime_error, which names the limit and its value, when the system has no descriptor,
    /// no inotify instance or no inotify watch left.
    EndpointMonitor(const std::string& groupTag, std::set<std::string> trustees);

    /// A moved-from object may only be destroyed or assigned to.
    EndpointMonitor(EndpointMonitor&& other) noexcept;
    EndpointMonitor& operator=(EndpointMonitor&& other) noexcept;

    EndpointMonitor(const EndpointMonitor&) = delete;
    EndpointMonitor& operator=(const EndpointMonitor&) = delete;

    /// Ends watching. In a forked child it only closes the inherited descriptors.
    ~EndpointMonitor();

    /// The group tag and the trustees that are watched.
    const std::string& groupTag() const noexcept;
    const std::set<std::string>& trustees() const noexcept;

    /// For poll, epoll and every event loop: readable when `take` may have something to return. It
    /// may also have nothing, for not all that happens is an event.
    ///
    /// It stays the monitor's, which must not be read, written or closed through it. It is the same
    /// after a move, and gone when the monitor is destroyed or assigned to; take it out of an epoll
    /// set before that, since a forked child's copy would keep it there.
    int fileDescriptor() const noexcept;

    // All calls below may throw, also when nothing was wrong before. What happens meanwhile is not
    // lost: the next call compares everything anew, and the descriptor becomes readable within a
    // second, for the caller to try again. For each watched group of which a member was stopped
    // with the group's table, a call may take the 2 seconds that a lookup waits then.

    /// What has happened since the last call, without waiting; at first all entries that are there.
    /// Each appearance and each disappearance is reported once, the appearance first.
    ///
    /// The events of one entry are in their order. Those of different entries are when a call lies
    /// between them, and nearly always within one call, too; but what comes to light at once is in
    /// no particular order: at first, after an error, when folders appear or change, or when more
    /// has happened than the system keeps (fs.inotify.max_queued_events).
    ///
    /// Entries whose publication and end both fall between two calls may go unreported; so may the
    /// end of one whose very name is published anew before the next call, together with its return.
    ///
    /// Throws as the constructor does, when what is to be watched has changed and cannot be watched
    /// any more, or when the system has no descriptor left to look at it.
    std::vector<Event> take();

    /// The same, but waits until there is something to return, or the time is over: then, and also
    /// when a signal handler has run meanwhile, it may return nothing. A time of zero or less does
    /// not wait. After a call that has thrown, it first waits until the descriptor is readable, for
    /// no longer than the time, before it tries again. Throws as `take` does.
    std::vector<Event> wait(std::chrono::milliseconds timeOut);

    // Lookups from memory, among the entries that are watched. They return what the lookups of
    // `Endpoint` with these trustees would, but ask the system only whether anything has happened.
    // What they learn that way is still reported by `take`, except for entries that appear and
    // disappear again before it is called.

    /// The data of the entry with this group tag and selected key, or nothing when there is none.
    /// An empty group tag or selected key stands for any. Trustees are searched in ascending order,
    /// so one's own entry comes first; of several entries of a trustee it is the one that
    /// `Endpoint::find` would find. Throws as `take` does.
    std::optional<DataPair> find(const std::string& groupTag, const std::string& selectedKey);

    /// The data of all entries with this group tag, in ascending order, equal pairs once. An empty
    /// group tag finds nothing. Throws as `take` does.
    std::vector<DataPair> filter(const std::string& groupTag);

    /// The data of all entries, in ascending order, equal pairs once. Throws as `take` does.
    std::vector<DataPair> list();

    // Private to the library.
    class __attribute__((visibility("hidden"))) Impl;

private:
    std::unique_ptr<Impl> impl;
};

} // namespace agent::spf::endpointregistry

#pragma GCC visibility pop
