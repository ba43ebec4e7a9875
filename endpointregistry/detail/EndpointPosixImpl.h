#pragma once

#include "endpointregistry/detail/EndpointImpl.h"
#include "endpointregistry/detail/EntryHint.h"
#include "sharedmemory/SharedMemory.h"

#include <optional>
#include <string>
#include <string_view>

namespace agent::spf::endpointregistry {

/// The record of a private entry: a locked file, and a segment of POSIX shared memory of the same
/// name that holds the data. It is withdrawn with the object.
class Endpoint::PosixImpl final : public Endpoint::Impl {
public:
    /// Publishes the entry. Throws DuplicateEndpointError when a live process has one of this
    /// name, std::runtime_error when the system refuses; nothing is left behind then.
    PosixImpl(const DataPair& data, const std::string& groupTag, const std::string& selectedKey,
              const std::string& trustee);

    /// The same by way of a folder that is open, that of the trustee.
    PosixImpl(const DataPair& data, const std::string& groupTag, const std::string& selectedKey,
              const EntryFolder& folder);

    LockedFile createLockedFile() override;

    /// Makes the segment, which appears with the data in it.
    sharedmemory::SharedMemory createSharedMemory(const DataPair& data) const;

    /// The segment of an entry; not attached when there is none of the size that the name states.
    static sharedmemory::SharedMemory findSharedMemory(const std::string& name,
                                                       const std::string& trustee);

    /// Leaves the hint by which `find` comes to this entry, whose tag and key give these pieces of
    /// names. Only for an entry that stays: one that no other stands in the way of. It is found
    /// without a hint as well, so nothing is reported where none can be made.
    void leaveHint(const EntryFolder& folder, std::string_view tagPrefix,
                   std::string_view keyPart) noexcept;

    /// Whether no publisher holds the entry of this name; what a dead one left is removed then.
    static bool staleEndpointFoundAndCleanedUp(const std::string& name, const EntryFolder& folder);

    static DataPair getDataPair(const std::string& name, const EntryFolder& folder);

    /// The data of the entry that the hint names, if that passes the test and can be read. A hint
    /// that leads to no such entry is removed.
    static std::optional<DataPair> findHinted(const EntryHint& hint, const NameTest& isWanted,
                                              const EntryFolder& folder);

    /// The data of the first entry that passes the test and can be read. The folder is read no
    /// further than to that one.
    static std::optional<DataPair> findDataPair(const NameTest& isWanted,
                                                const EntryFolder& folder);

private:
    LockedFile createLockedFile(const EntryFolder& folder) const;

    /// For the holder of the entry's file: what has the segment's name is a dead publisher's.
    sharedmemory::SharedMemory replaceSharedMemory(const DataPair& data,
                                                   const EntryFolder& folder) const;

    /// Removes what a dead publisher left beside the entry's file, for whoever has the file's lock.
    static void removeTraces(const std::string& name, const EntryFolder& folder);

    // The hint goes before the data, and that before the lock that guards both: for as long as the
    // file stands, whoever looks next finds what a crash has left of the rest.
    LockedFile lockedFile;
    sharedmemory::SharedMemory sharedMemory;
    PublishedHint hint;
};

} // namespace agent::spf::endpointregistry
