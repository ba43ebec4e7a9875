#pragma once

#include "endpointregistry/LockedFile.h"
#include "endpointregistry/detail/ArrayBase.h"
#include "foundation/os/Group.h"
#include "sharedmemory/SegmentOpeners.h"
#include "sharedmemory/SharedMemory.h"

#include <cstddef>
#include <optional>
#include <string>
#include <sys/types.h>

namespace agent::spf::endpointregistry {

/// How one operation comes to the segments and the lock of a trustee's tables. The trustee, which
/// must outlive this object, is looked up once, and whoever does not let go of the lock is waited
/// for once.
class TableAccess {
public:
    static constexpr auto implementation =
        sharedmemory::SharedMemory::ImplementationSpecifications::SysV;

    explicit TableAccess(const foundation::os::Group& trustee)
        : group(trustee)
        , segments(trustee) {}

    /// For one of several operations, of which the next shall not wait for whom this one has waited
    /// for in vain. `busy` outlives this object.
    TableAccess(const foundation::os::Group& trustee, std::optional<pid_t>& busy)
        : group(trustee)
        , segments(trustee)
        , busyHolder(busy) {}

    TableAccess(const TableAccess&) = delete;
    TableAccess& operator=(const TableAccess&) = delete;

    const foundation::os::Group& trustee() const { return group; }

    /// Whether an operation cannot do without the lock, and waits for one holder as long as changes
    /// do, or can, and waits as long as lookups do.
    enum class Lock { required, preferred };

    /// The lock of all tables of the trustee; nothing where a holder does not let go in time.
    std::optional<LockedFile> tryLock(Lock need);

    /// The same for an operation that cannot do without, which fails as below.
    LockedFile lock();

    /// Logs and throws std::runtime_error with the process id of whoever was waited for in vain.
    [[noreturn]] void failBusy() const;

    /// The base of exactly this trustee, which an empty one would not ask for; not attached when
    /// there is none. A container of another version of the table may have the same name: "xv1"
    /// and generation 2, "xv12".
    sharedmemory::SharedMemory findBase(const std::string& baseName);

    /// Under the lock: the base, made and initialised where it is missing or was left half made.
    sharedmemory::SharedMemory openOrCreateBase(const std::string& baseName);

    /// Makes a base of these bytes; not attached when there is one.
    sharedmemory::SharedMemory createBase(const std::string& baseName, const std::string& contents);

    /// The container of a descriptor; not attached when there is none, or none that large.
    sharedmemory::SharedMemory findContainer(const std::string& baseName,
                                             const ArrayBase::Descriptor& descriptor);

    /// Whether there is a segment of this name, of whatever size.
    bool isTaken(const std::string& name) { return segments.isTaken(name); }

    /// To be called when what was found turns out not to be what its name stands for, before it is
    /// looked for again: the directory that it was found in may have been moved.
    void lookAgain() { segments.forgetDirectory(); }

    /// Makes the container of a descriptor anew. What stands under its name is removed, and never
    /// used: it may hold old rows.
    sharedmemory::SharedMemory createContainer(const std::string& baseName,
                                               const ArrayBase::Descriptor& descriptor);

    /// Removes the containers of a base that is gone, which its successor would not know of.
    void removeContainersOf(const std::string& baseName);

    /// Removes a container, of whatever size.
    void removeContainer(const std::string& name);

    /// The first generation after this one whose container's name is free for this table.
    unsigned long generationAfter(unsigned long generation, const std::string& baseName);

    /// Whether a container's name is that of a segment of another version of the table: generation
    /// 25 of version 1 and generation 5 of version 12 are called the same, and so is the base of
    /// version 125.
    bool belongsToOtherVersion(const std::string& baseName, const std::string& containerName);

private:
    const foundation::os::Group& group;
    sharedmemory::SharedMemory::Openers segments;
    std::optional<pid_t> ownBusyHolder;
    /// Who was waited for in vain.
    std::optional<pid_t>& busyHolder = ownBusyHolder;
};

namespace arrays {

/// Whether a segment that was found under a base's name is one.
bool isBase(const sharedmemory::SharedMemory& segment);

/// Whether a container of this size may be made, or believed in.
bool isAcceptable(const ArrayBase::Descriptor& descriptor);

// Both log and throw std::runtime_error.
[[noreturn]] void failInconsistent(const std::string& baseName);
[[noreturn]] void failInitialState();

} // namespace arrays

} // namespace agent::spf::endpointregistry
