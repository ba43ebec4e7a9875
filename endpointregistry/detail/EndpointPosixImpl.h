#pragma once

#include "endpointregistry/detail/EndpointImpl.h"
#include "sharedmemory/SharedMemory.h"

#include <optional>
#include <string>

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

    /// Whether no publisher holds the entry of this name; what a dead one left is removed then.
    static bool staleEndpointFoundAndCleanedUp(const std::string& name, const EntryFolder& folder);

    static DataPair getDataPair(const std::string& name, const EntryFolder& folder);

    /// The data of the first entry that passes the test and can be read. The folder is read no
    /// further than to that one.
    static std::optional<DataPair> findDataPair(const NameTest& isWanted,
                                                const EntryFolder& folder);

private:
    LockedFile createLockedFile(const EntryFolder& folder) const;

    /// For the holder of the entry's file: what has the segment's name is a dead publisher's.
    sharedmemory::SharedMemory replaceSharedMemory(const DataPair& data) const;

    static void removeSharedMemory(const std::string& name, const std::string& trustee);

    // The data goes before the lock that guards it.
    LockedFile lockedFile;
    sharedmemory::SharedMemory sharedMemory;
};

} // namespace agent::spf::endpointregistry
