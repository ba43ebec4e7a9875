#pragma once

#include "endpointregistry/LockedFile.h"
#include "endpointregistry/detail/ArrayBase.h"
#include "endpointregistry/detail/ArrayRows.h"
#include "foundation/os/Group.h"
#include "sharedmemory/SharedMemory.h"

#include <cstddef>
#include <optional>
#include <string>

/// How operations come to the segments and the lock of one table. Each operation of a table looks
/// its trustee up once.
namespace agent::spf::endpointregistry::arrays {

inline constexpr auto implementation =
    sharedmemory::SharedMemory::ImplementationSpecifications::SysV;

/// Waits for the lock of all tables of a trustee.
LockedFile lock(const foundation::os::Group& trustee);

/// A segment of exactly this trustee, which an empty trustee would not ask for; not attached when
/// there is none of at least this size.
sharedmemory::SharedMemory find(const std::string& name, std::size_t size,
                                const foundation::os::Group& trustee);

/// Whether a segment that was found or made under a base's name is one. A container of another
/// version of the table may have the same name: "xv1" and generation 2, "xv12".
bool isBase(const sharedmemory::SharedMemory& segment);

/// The base of this trustee; not attached when there is none.
sharedmemory::SharedMemory findBase(const std::string& baseName,
                                    const foundation::os::Group& trustee);

/// The base that questions about a table are answered from: that of the trustee; else what an empty
/// trustee finds, but not another group's when the trustee is a group.
sharedmemory::SharedMemory findAnyBase(const std::string& baseName,
                                       const foundation::os::Group& trustee);

/// A table's base together with the lock. The base goes before the lock.
struct LockedBase {
    LockedFile lock;
    sharedmemory::SharedMemory segment;

    ArrayBase view() const { return ArrayBase(segment.getPointer()); }
};

/// Locks the table of an initialised base, provided that the base is still there then: it was found
/// before the lock was free, and what is written to a removed one is lost. `trustee` is the base's.
std::optional<LockedBase> lockIfStillNamed(sharedmemory::SharedMemory base,
                                           const foundation::os::Group& trustee);

/// The container of a descriptor; not attached when there is none, or none that large.
sharedmemory::SharedMemory findContainer(const std::string& baseName,
                                         const ArrayBase::Descriptor& descriptor,
                                         const foundation::os::Group& trustee);

/// Whether a container's name is that of a segment of another version of the table: generation 25
/// of version 1 and generation 5 of version 12 are called the same, and so is the base of version
/// 125.
bool belongsToOtherVersion(const std::string& baseName, const std::string& containerName,
                           const foundation::os::Group& trustee);

/// Whether a container of this size may be made, or believed in.
bool isAcceptable(const ArrayBase::Descriptor& descriptor);

/// Logs and throws std::runtime_error.
[[noreturn]] void failInconsistent(const std::string& baseName);

} // namespace agent::spf::endpointregistry::arrays
