#pragma once

#include "endpointregistry/Endpoint.h"
#include "endpointregistry/LockedFile.h"
#include "endpointregistry/detail/EntryFolder.h"

#include <functional>
#include <optional>
#include <set>
#include <string>
#include <string_view>
#include <vector>

namespace agent::spf::endpointregistry {

/// The record behind one published entry: what identifies it, and the queries about all entries.
///
/// It keeps no copy of the data: that is read back from the registry. Its backends publish on
/// construction and withdraw on destruction.
class Endpoint::Impl {
public:
    /// The registry's sub-folder that holds all entry files.
    static constexpr const char* LF_PARENT_PATH = EntryFolder::parent;

    virtual ~Impl() = default;

    Impl(const Impl&) = delete;
    Impl& operator=(const Impl&) = delete;

    const std::string& entryName() const { return name; }
    std::string getGroupTag() const { return groupTag; }
    std::string getSelectedKey() const { return selectedKey; }
    std::string getTrustee() const { return trustee; }
    DataPair getDataPair() const { return getDataPair(name, trustee); }

    /// Makes and locks the file that shows that this entry lives.
    virtual LockedFile createLockedFile() = 0;

    /// The names of the private entries that a publication would meet, as `Synonyms` says.
    static std::set<std::string> getAllSynonymNames(const DataPair& data,
                                                    const std::string& groupTag,
                                                    const std::string& selectedKey);

    /// How many of them are alive; one that has vanished since it was listed counts as well.
    static unsigned long countSynonymEndpoints(const DataPair& data, const std::string& groupTag,
                                               const std::string& selectedKey);

    /// The names of a trustee's entries with this group tag; of all, for the empty tag.
    static std::vector<std::string> filterNames(const std::string& groupTag,
                                                const std::string& trustee);

    /// The names of a trustee's entries with this group tag and this selected key.
    static std::vector<std::string> findNames(const std::string& groupTag,
                                              const std::string& selectedKey,
                                              const std::string& trustee);

    /// The data of the entry of this name; the pair of two empty strings when it is missing, dead
    /// or unreadable. What a dead publisher left is removed.
    static DataPair getDataPair(const std::string& name, const std::string& trustee);

    /// The data of the first entry with this group tag and this selected key that can be read.
    static std::optional<DataPair> findDataPair(const std::string& groupTag,
                                                const std::string& selectedKey,
                                                const std::string& trustee);

    /// The data of all entries with this group tag that can be read; of all, for the empty tag.
    static std::vector<DataPair> filterDataPairs(const std::string& groupTag,
                                                 const std::string& trustee);

    /// The data of those of the entries that can be read, in the order of their names.
    static std::vector<DataPair> getDataPairs(const std::vector<std::string>& names,
                                              const EntryFolder& folder);

    /// Whether the entry's name says that this version of the library can read it.
    static bool hasKnownVersion(const std::string& name);

protected:
    /// Throws std::invalid_argument unless the trustee is one that this user may use.
    Impl(const DataPair& data, const std::string& groupTag, const std::string& selectedKey,
         const std::string& trustee);

    /// Makes and locks the entry's file, which goes with the lock. What a dead publisher of this
    /// very name has left is removed before: its data, by `removeData`, which tells whether it
    /// could, and its file; others that are at that are waited for no longer than the timeout. A
    /// new file of a group's has these contents. A dead publisher's file is not locked again, for
    /// whoever watches the folder is told of a publisher's end only when the publisher has made its
    /// file.
    ///
    /// Throws DuplicateEndpointError when a live process has the file, std::runtime_error when it
    /// cannot be made, or when others that clear up after the dead one are waited for in vain.
    LockedFile lockEntryFile(const EntryFolder& folder, const std::function<bool()>& removeData,
                             std::chrono::milliseconds timeout,
                             std::string_view contents = {}) const;

    /// Whether this can be the data of an entry; two empty strings stand for one that cannot be
    /// read.
    static bool isReadable(const DataPair& data) {
        return !data.first.empty() || !data.second.empty();
    }

    /// Whether the process that the entry's name states is dead. That some process answers to its
    /// id proves nothing, since ids are given out again: then the lock decides.
    static bool isPublisherGone(const std::string& name);

    const std::string& trusteeName() const { return trustee; }

private:
    /// For a file that could not be locked, of which a dead publisher may be in the way: throws as
    /// `lockEntryFile` does.
    [[noreturn]] void failToLock(int error, bool isStale) const;

    std::string trustee;
    std::string groupTag;
    std::string selectedKey;
    std::string name;
};

} // namespace agent::spf::endpointregistry
