#pragma once

#include <memory>
#include <optional>
#include <set>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#pragma GCC visibility push(default)

namespace agent::spf::endpointregistry {

/// One published endpoint: a data pair that other processes of this machine find by group tag and
/// selected key for as long as the object lives.
///
/// All strings are plain bytes; embedded zero bytes are allowed. There is no server: the entry is a
/// locked file and a segment of shared memory. When the process ends, however abruptly, the lock
/// goes with it, and whoever looks next finds the entry dead and removes it.
///
/// One thread at a time uses an object; different objects, and the static lookups, may be used by
/// any number of threads at once. A child made by fork() inherits a copy that withdraws nothing:
/// the entry stays its parent's. The child does keep the entry alive, though, for as long as it
/// holds the inherited descriptors, that is until it calls exec or ends.
class Endpoint {
public:
    /// Publication met a live entry with the same group tag and the same selected key, or with the
    /// same group tag and the same joined data.
    class DuplicateEndpointError : public std::runtime_error {
    public:
        DuplicateEndpointError();
        explicit DuplicateEndpointError(const std::string& detail);
    };

    using DataPair = std::pair<std::string, std::string>;

    /// Makes an empty object, which publishes nothing. Never throws.
    Endpoint() noexcept;

    /// Publishes `data` under `groupTag` and `selectedKey` for all processes of this user.
    ///
    /// When it returns, every lookup that begins afterwards finds the entry. Of publishers that
    /// race for one key, exactly one succeeds.
    ///
    /// Throws std::invalid_argument when both data strings are empty, or the group tag is, or the
    /// selected key is; DuplicateEndpointError when a synonym is alive; std::runtime_error when
    /// the system refuses (descriptors, memory, permissions). Nothing is left behind then.
    Endpoint(const DataPair& data, const std::string& groupTag, const std::string& selectedKey);

    /// Publishes under the selected key `data.first + data.second`; else as above.
    Endpoint(const DataPair& data, const std::string& groupTag);

    /// Publishes the pair of `first` and `second` under the selected key `first + second`.
    /// Throws as the constructor does.
    static Endpoint publish(const std::string& first, const std::string& second,
                            const std::string& groupTag);

    /// Publishes the pair of `first` and `second` under `selectedKey`. Throws as the constructor
    /// does.
    static Endpoint publish(const std::string& first, const std::string& second,
                            const std::string& groupTag, const std::string& selectedKey);

    /// Takes over what `other` publishes and leaves it empty; other processes notice nothing.
    Endpoint(Endpoint&& other) noexcept;

    /// Withdraws what this object publishes, then takes over what `other` publishes and leaves it
    /// empty. Throws only what an application's own log sink throws; both objects are unchanged
    /// then. Assigning an object to itself changes nothing.
    Endpoint& operator=(Endpoint&& other); // NOLINT(performance-noexcept-move-constructor)

    Endpoint(const Endpoint&) = delete;
    Endpoint& operator=(const Endpoint&) = delete;

    /// Withdraws the entry: lookups that begin afterwards do not find it. Ends the process if an
    /// application's own log sink throws.
    ~Endpoint();

    /// Withdraws the entry and leaves the object empty; on an empty object it does nothing.
    void reset() noexcept;

    /// Whether the object publishes an entry.
    explicit operator bool() const noexcept;

    // Sharing. Each trustee, the name of a group of the operating system, gets an entry of its own
    // with the same data, group tag and selected key, which members of the group find with the
    // lookups that search it. The private entry stays. All throw std::invalid_argument on an empty
    // object.
    //
    // Members work on a group's table by turns, and wait for as long as others take turns. One who
    // was stopped in it (by a debugger, for instance) is not waited for without end: lookups and
    // withdrawals go on after 2 seconds for each such group, or sooner where it has kept them out
    // for that long already; `addTrustees` gives up after 10 (see the timeouts of
    // `NamedStringArray`). What is shared stays in sight for as long as its publisher lives, also
    // when the table is lost, as with the logout of the user who made it.

    /// Shares the entry with these groups, too; those it is shared with already and the empty
    /// string are passed over. Groups are taken in ascending order.
    ///
    /// Members find the entry, all of it at once, from when its turn is done. Nobody looks for
    /// synonyms: members may share equal tags and keys with one group.
    ///
    /// Throws std::invalid_argument when the calling process is not in a group or the data contains
    /// a zero byte; DuplicateEndpointError when another object of this process shares an entry of
    /// the same data, tag and key with the group; std::runtime_error when the shared folder of this
    /// machine is missing, when something stands in a place of the group that does not belong to
    /// it, when a member who was stopped does not let go of the group's table (the text names the
    /// process), when the private entry cannot be read any more, or when the system refuses. Groups
    /// before the one that failed stay shared.
    void addTrustees(std::set<std::string> trustees);

    /// The groups that the entry is shared with.
    std::set<std::string> getTrustees() const;

    /// Ends the sharing with these groups; others are passed over. Members that look afterwards do
    /// not find the entry. Throws std::runtime_error when the caller's own registry cannot be read.
    ///
    /// This, and every other way to end a sharing, ends the process when the group's table cannot
    /// be reached for want of descriptors, memory or rights. Where a member who was stopped does
    /// not let go of the table, it leaves what a killed publisher leaves, for the next to look to
    /// clear away.
    void removeTrustees(std::set<std::string> trustees);

    /// Ends the sharing with all groups.
    void clearTrustees();

    /// Shares the entry with exactly these groups: the new ones first, so that a group in both sets
    /// never misses it. Throws as `addTrustees` does, before any sharing is ended.
    void setTrustees(std::set<std::string> trustees);

    // Lookups. They change nothing but what the dead left behind, which they remove, and make at
    // most the user's empty base folder, and the lock file of a group's table that there is. They
    // may be called from any thread. An entry that vanishes while a lookup runs is skipped. A
    // trustee is the name of a group of the operating system, the empty string stands for the
    // caller's own entries; `...FromLocal` searches those alone,
    // `...FromAllTrustees` those and all supplementary groups of the calling process that have a
    // name.
    //
    // All throw std::runtime_error when a folder of the registry cannot be read, the names of the
    // process's groups cannot be asked for, or the system has no descriptor or memory left,
    // std::out_of_range when a segment's contents contradict its name, and std::invalid_argument
    // when a folder's group is no longer known.

    /// The data of the entry with exactly this group tag and selected key, or nothing when there
    /// is none. Trustees are searched in ascending order, so one's own entry comes first.
    static std::optional<DataPair> find(const std::string& groupTag, const std::string& selectedKey,
                                        std::set<std::string> trustees);
    static std::optional<DataPair> find(const std::string& groupTag,
                                        const std::string& selectedKey);
    static std::optional<DataPair> findFromLocal(const std::string& groupTag,
                                                 const std::string& selectedKey);
    static std::optional<DataPair> findFromAllTrustees(const std::string& groupTag,
                                                       const std::string& selectedKey);

    /// The data of all entries with this group tag, in ascending order, equal pairs once. An empty
    /// group tag finds nothing.
    static std::vector<DataPair> filter(const std::string& groupTag,
                                        std::set<std::string> trustees);
    static std::vector<DataPair> filter(const std::string& groupTag);
    static std::vector<DataPair> filterFromLocal(const std::string& groupTag);
    static std::vector<DataPair> filterFromAllTrustees(const std::string& groupTag);

    /// As `filter`, but an empty group tag finds the entries of every group tag.
    static std::vector<DataPair>
    filterUsingEmptySpaceAsGroupTagWildcard(const std::string& groupTag,
                                            std::set<std::string> trustees);

    /// The data of all entries, in ascending order, equal pairs once.
    static std::vector<DataPair> list(std::set<std::string> trustees);
    static std::vector<DataPair> list();
    static std::vector<DataPair> listFromLocal();
    static std::vector<DataPair> listFromAllTrustees();

    // The records behind an endpoint; private to the library.
    class __attribute__((visibility("hidden"))) Impl;
    class __attribute__((visibility("hidden"))) PosixImpl;
    class __attribute__((visibility("hidden"))) SysVImpl;

private:
    void withdrawShares() noexcept;

    std::unique_ptr<Impl> primary;
    std::vector<std::unique_ptr<Impl>> shares;
};

} // namespace agent::spf::endpointregistry

#pragma GCC visibility pop
