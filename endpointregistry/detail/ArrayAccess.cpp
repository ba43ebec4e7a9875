#include "endpointregistry/detail/ArrayAccess.h"

#include "endpointregistry/Loggers.h"
#include "endpointregistry/NamedStringArray.h"
#include "endpointregistry/detail/JoinedRegistry.h"

#include <stdexcept>
#include <utility>

namespace agent::spf::endpointregistry::arrays {

namespace {

using foundation::log::severity;
using sharedmemory::SharedMemory;

/// A descriptor may state anything; what it states is read from end to end.
constexpr unsigned long largestContainer = 256UL * 1024 * 1024;

} // namespace

LockedFile lock(const std::string& trustee) {
    return joined::getLock("baseLock", "qvNamedStringArray", trustee);
}

SharedMemory find(const std::string& name, std::size_t size, const std::string& trustee) {
    SharedMemory segment = SharedMemory::find(name, size, trustee, implementation);
    return segment.getTrustee() == trustee ? std::move(segment) : SharedMemory();
}

bool isBase(const SharedMemory& segment) {
    return segment.getSize() == ArrayBase::size;
}

SharedMemory findBase(const std::string& baseName, const std::string& trustee) {
    SharedMemory base = find(baseName, ArrayBase::size, trustee);
    return isBase(base) ? std::move(base) : SharedMemory();
}

SharedMemory findAnyBase(const std::string& baseName, const std::string& trustee) {
    SharedMemory base = findBase(baseName, trustee);
    if (base.isAttached()) {
        return base;
    }
    base = SharedMemory::find(baseName, ArrayBase::size, {}, implementation);
    const bool isAnothers = !trustee.empty() && !base.getTrustee().empty();
    return isBase(base) && !isAnothers ? std::move(base) : SharedMemory();
}

std::optional<LockedBase> lockIfStillNamed(SharedMemory base) {
    LockedBase locked{lock(base.getTrustee()), std::move(base)};
    if (!locked.segment.isStillNamed()) {
        return std::nullopt;
    }
    return locked;
}

SharedMemory findContainer(const std::string& baseName, const ArrayBase::Descriptor& descriptor,
                           const std::string& trustee) {
    if (!isAcceptable(descriptor)) {
        return {};
    }
    return find(NamedStringArray::getContainerName(baseName, descriptor.generation),
                NamedStringArray::getContainerSize(descriptor.length, descriptor.width), trustee);
}

bool isAcceptable(const ArrayBase::Descriptor& descriptor) {
    return NamedStringArray::getContainerSize(descriptor.length, descriptor.width) <=
           largestContainer;
}

void failInconsistent(const std::string& baseName) {
    getLogger().log(severity::error, "NamedStringArray: The table is inconsistent: <", baseName,
                    ">.");
    throw std::runtime_error("System Error: NamedStringArray: Inconsistent table");
}

} // namespace agent::spf::endpointregistry::arrays
