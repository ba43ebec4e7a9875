#pragma once

#include "endpointregistry/detail/EndpointImpl.h"
#include "endpointregistry/detail/Table.h"
#include "foundation/os/Group.h"
#include "sharedmemory/SegmentRecord.h"

#include <cstddef>
#include <optional>
#include <string>
#include <sys/types.h>
#include <vector>

namespace agent::spf::endpointregistry {

/// The record of an entry that is shared with a group: a locked file in the group's folder, and a
/// row of the group's table: the entry's name, the first and the second data string.
///
/// The file comes before the row and goes after it, so a row whose file nobody holds is a dead
/// publisher's. Where the table stands, the row is what counts. It may be lost while the publisher
/// lives, since it goes with the login session of the member who made it, or be out of reach; then
/// the copy of the data that is in the file answers, as `EntryCopy.h` says.
class Endpoint::SysVImpl final : public Endpoint::Impl {
public:
    /// Publishes the entry. Throws DuplicateEndpointError when a live process has one of this name
    /// in the group, std::invalid_argument for data that no row can hold, std::runtime_error when
    /// the system refuses; at most an empty table is left behind then.
    SysVImpl(const DataPair& data, const std::string& groupTag, const std::string& selectedKey,
             const std::string& trustee);

    /// Withdraws it, unless it is the copy of a forked child. Where somebody does not let go of the
    /// table's lock, it leaves what a killed publisher does. Ends the process when the table cannot
    /// be reached for another reason.
    ~SysVImpl() override;

    LockedFile createLockedFile() override;

    /// Whether no publisher holds the entry of this name; what a dead one left is removed then.
    static bool staleEndpointFoundAndCleanedUp(const std::string& name, const EntryFolder& folder,
                                               Table& table);

    /// The data of the first entry that can be read of those whose names pass the test.
    static std::optional<DataPair> findDataPair(const NameTest& isWanted,
                                                const EntryFolder& folder);

    /// As `Impl::getDataPairs`, but at most so many; the table is read once for all.
    static std::vector<DataPair> getDataPairs(const std::vector<std::string>& names,
                                              const EntryFolder& folder, std::size_t most);

private:
    LockedFile publish(const DataPair& data) const;
    LockedFile createLockedFile(const EntryFolder& folder, TableAccess& access,
                                const std::string& contents) const;

    /// The data of an entry without a row, from the copy in its file; nothing where the table that
    /// was read is the one that the row belongs into, and nothing of a dead publisher's.
    /// `allowance` is how many bytes the copies of one lookup may still take.
    static std::optional<DataPair> getCopy(const std::string& name, const EntryFolder& folder,
                                           const std::optional<sharedmemory::SegmentToken>& table,
                                           std::size_t& allowance);

    pid_t publisher;
    /// Looked up once: a withdrawal must not depend on the databases.
    foundation::os::Group group;
    LockedFile lockedFile;
};

} // namespace agent::spf::endpointregistry
