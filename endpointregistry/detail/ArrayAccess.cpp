#include "endpointregistry/detail/ArrayAccess.h"

#include "endpointregistry/Loggers.h"
#include "endpointregistry/NamedStringArray.h"
#include "endpointregistry/detail/JoinedRegistry.h"
#include "sharedmemory/SegmentOpeners.h"

#include <stdexcept>
#include <utility>

namespace agent::spf::endpointregistry::arrays {

namespace os = foundation::os;

namespace {

using foundation::log::severity;
using sharedmemory::SharedMemory;

// No strings, which would go with the library's statics: what is shared may be withdrawn later.
constexpr const char* lockName = "baseLock";
constexpr const char* lockParent = "qvNamedStringArray";

// A descriptor may state anything, and what it states is read from end to end.
constexpr unsigned long largestContainer = 64UL * 1024 * 1024;
constexpr unsigned long mostRows = 1024UL * 1024;

} // namespace

LockedFile lock(const os::Group& trustee) {
    return joined::getLock(lockName, lockParent, trustee);
}

SharedMemory find(const std::string& name, std::size_t size, const os::Group& trustee) {
    return SharedMemory::Openers::findExactly(name, size, trustee, implementation);
}

bool isBase(const SharedMemory& segment) {
    return segment.getSize() == ArrayBase::size;
}

SharedMemory findBase(const std::string& baseName, const os::Group& trustee) {
    SharedMemory base = find(baseName, ArrayBase::size, trustee);
    return isBase(base) ? std::move(base) : SharedMemory();
}

SharedMemory findAnyBase(const std::string& baseName, const os::Group& trustee) {
    SharedMemory base = findBase(baseName, trustee);
    if (base.isAttached()) {
        return base;
    }
    if (!trustee.isNone()) {
        return findBase(baseName, os::Group({}));
    }
    base = SharedMemory::Openers::find(baseName, ArrayBase::size, trustee, implementation);
    return isBase(base) ? std::move(base) : SharedMemory();
}

std::optional<LockedBase> lockIfStillNamed(SharedMemory base, const os::Group& trustee) {
    LockedBase locked{lock(trustee), std::move(base)};
    if (!locked.segment.isStillNamed()) {
        return std::nullopt;
    }
    return locked;
}

SharedMemory findContainer(const std::string& baseName, const ArrayBase::Descriptor& descriptor,
                           const os::Group& trustee) {
    const std::string name = NamedStringArray::getContainerName(baseName, descriptor.generation);
    if (!isAcceptable(descriptor) || belongsToOtherVersion(baseName, name, trustee)) {
        return {};
    }
    return find(name, NamedStringArray::getContainerSize(descriptor.length, descriptor.width),
                trustee);
}

bool belongsToOtherVersion(const std::string& baseName, const std::string& containerName,
                           const os::Group& trustee) {
    const std::size_t digits = baseName.rfind('v') + 1;
    for (std::size_t end = digits + 1; end <= containerName.size(); ++end) {
        const bool isOwn = end == baseName.size();
        // Numbers are written without leading zeros.
        const bool isVersion = containerName[digits] != '0' || end == digits + 1;
        const bool isGeneration = end == containerName.size() || containerName[end] != '0';
        if (isOwn || !isVersion || !isGeneration) {
            continue;
        }
        const SharedMemory base = findBase(containerName.substr(0, end), trustee);
        if (!base.isAttached()) {
            continue;
        }
        const ArrayBase view(base.getPointer());
        const std::string generation = containerName.substr(end);
        if (generation.empty() || generation == std::to_string(view.current().generation) ||
            generation == std::to_string(view.other().generation)) {
            return true;
        }
    }
    return false;
}

bool isAcceptable(const ArrayBase::Descriptor& descriptor) {
    return descriptor.length <= mostRows &&
           NamedStringArray::getContainerSize(descriptor.length, descriptor.width) <=
               largestContainer;
}

void failInconsistent(const std::string& baseName) {
    getLogger().log(severity::error, "NamedStringArray: The table is inconsistent: <", baseName,
                    ">.");
    throw std::runtime_error("System Error: NamedStringArray: Inconsistent table");
}

} // namespace agent::spf::endpointregistry::arrays
