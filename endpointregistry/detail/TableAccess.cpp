#include "endpointregistry/detail/TableAccess.h"

#include "endpointregistry/Loggers.h"
#include "endpointregistry/NamedStringArray.h"
#include "endpointregistry/detail/ArrayRows.h"
#include "endpointregistry/detail/GroupFiles.h"

#include <limits>
#include <stdexcept>
#include <utility>

namespace agent::spf::endpointregistry {

namespace {

using foundation::log::severity;
using sharedmemory::SharedMemory;

// No strings, which would go with the library's statics: what is shared may be withdrawn later.
constexpr const char* lockName = "baseLock";
constexpr const char* lockParent = "qvNamedStringArray";

// A descriptor may state anything, and what it states is read from end to end.
constexpr unsigned long largestContainer = 64UL * 1024 * 1024;
constexpr unsigned long maxRows = 1024UL * 1024;

Waiting waitingFor(TableAccess::Lock need) {
    return need == TableAccess::Lock::required
               ? Waiting::forOneHolder(NamedStringArray::changeTimeout)
               : Waiting::briefly(NamedStringArray::readTimeout, NamedStringArray::changeTimeout);
}

std::string nameOf(const std::string& baseName, const ArrayBase::Descriptor& descriptor) {
    return NamedStringArray::getContainerName(baseName, descriptor.generation);
}

unsigned long sizeOf(const ArrayBase::Descriptor& descriptor) {
    return NamedStringArray::getContainerSize(descriptor.length, descriptor.width);
}

} // namespace

std::optional<LockedFile> TableAccess::tryLock(Lock need) {
    const bool hasWaited = busyHolder.has_value();
    groupfiles::LockOrHolder result = groupfiles::getLockWithin(
        lockName, lockParent, group, hasWaited ? Waiting::once() : waitingFor(need));
    if (!result.lock.isLocked()) {
        busyHolder = result.holder;
        return std::nullopt;
    }
    return std::move(result.lock);
}

LockedFile TableAccess::lock() {
    if (auto locked = tryLock(Lock::required)) {
        return std::move(*locked);
    }
    failBusy();
}

void TableAccess::failBusy() const {
    const std::string holder = std::to_string(busyHolder.value_or(0));
    getLogger().log(severity::error, "NamedStringArray: The lock of the tables is held by process ",
                    holder, ".");
    throw std::runtime_error("System Error: NamedStringArray: The tables are locked by process " +
                             holder);
}

SharedMemory TableAccess::findBase(const std::string& baseName) {
    SharedMemory base = segments.findExactly(baseName, ArrayBase::size);
    return arrays::isBase(base) ? std::move(base) : SharedMemory();
}

SharedMemory TableAccess::openOrCreateBase(const std::string& baseName) {
    for (;;) {
        SharedMemory base = segments.findExactly(baseName, ArrayBase::size);
        if (base.isAttached()) {
            if (!arrays::isBase(base)) {
                arrays::failInconsistent(baseName);
            }
            const ArrayBase view(base.getPointer());
            // Everybody who makes one holds the lock, so the maker of a half-made one is dead.
            if (!view.isInitialised() && !view.initialize(generationAfter(0, baseName))) {
                arrays::failInitialState();
            }
            return base;
        }
        base = createBase(baseName, ArrayBase::initialContents(generationAfter(0, baseName)));
        if (base.isAttached()) {
            removeContainersOf(baseName);
            return base;
        }
        // Perhaps made by somebody who did not ask for the lock; but what is too small stays so.
        if (isTaken(baseName) && !findBase(baseName).isAttached()) {
            arrays::failInconsistent(baseName);
        }
    }
}

SharedMemory TableAccess::createBase(const std::string& baseName, const std::string& contents) {
    SharedMemory base = segments.createFilled(baseName, contents);
    base.makePersistent();
    return base;
}

SharedMemory TableAccess::findContainer(const std::string& baseName,
                                        const ArrayBase::Descriptor& descriptor) {
    const std::string name = nameOf(baseName, descriptor);
    if (!arrays::isAcceptable(descriptor) || belongsToOtherVersion(baseName, name)) {
        return {};
    }
    // One of another size is not this base's: a table that was made anew counts its generations
    // from the beginning.
    SharedMemory container = segments.findExactly(name, sizeOf(descriptor));
    return container.getSize() == sizeOf(descriptor) ? std::move(container) : SharedMemory();
}

SharedMemory TableAccess::createContainer(const std::string& baseName,
                                          const ArrayBase::Descriptor& descriptor) {
    const std::string name = nameOf(baseName, descriptor);
    // From an interrupted resize, or from an earlier table of this name.
    removeContainer(name);
    SharedMemory made = segments.create(name, sizeOf(descriptor));
    if (!made.isAttached()) {
        arrays::failInconsistent(baseName);
    }
    made.makePersistent();
    return made;
}

void TableAccess::removeContainersOf(const std::string& baseName) {
    for (const std::string& name : segments.namesWith(baseName)) {
        const bool isContainer =
            name.find_first_not_of("0123456789", baseName.size()) == std::string::npos;
        if (isContainer && !belongsToOtherVersion(baseName, name)) {
            removeContainer(name);
            segments.removeStale(name);
        }
    }
}

void TableAccess::removeContainer(const std::string& name) {
    for (;;) {
        SharedMemory container = segments.findExactly(name, 1);
        if (!container.isAttached()) {
            return;
        }
        container.markForDeletion();
    }
}

unsigned long TableAccess::generationAfter(unsigned long generation, const std::string& baseName) {
    do {
        if (generation == std::numeric_limits<unsigned long>::max()) {
            arrays::failInconsistent(baseName);
        }
        ++generation;
    } while (
        belongsToOtherVersion(baseName, NamedStringArray::getContainerName(baseName, generation)));
    return generation;
}

bool TableAccess::belongsToOtherVersion(const std::string& baseName,
                                        const std::string& containerName) {
    const std::size_t digits = baseName.rfind('v') + 1;
    for (std::size_t end = digits + 1; end <= containerName.size(); ++end) {
        const bool isOwn = end == baseName.size();
        // Numbers are written without leading zeros.
        const bool isVersion = containerName[digits] != '0' || end == digits + 1;
        const bool isGeneration = end == containerName.size() || containerName[end] != '0';
        if (isOwn || !isVersion || !isGeneration) {
            continue;
        }
        const SharedMemory base = findBase(containerName.substr(0, end));
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

namespace arrays {

void failInitialState() {
    getLogger().log(severity::error,
                    "NamedStringArray::initializeBase: Inconsistent initial state of base.");
    throw std::runtime_error("System Error: Endpoint::NamedStringArray::initializeBase: "
                             "Inconsistent initial state");
}

bool isBase(const SharedMemory& segment) {
    return segment.getSize() == ArrayBase::size;
}

bool isAcceptable(const ArrayBase::Descriptor& descriptor) {
    return descriptor.length <= maxRows && sizeOf(descriptor) <= largestContainer;
}

void failInconsistent(const std::string& baseName) {
    getLogger().log(severity::error, "NamedStringArray: The table is inconsistent: <", baseName,
                    ">.");
    throw std::runtime_error("System Error: NamedStringArray: Inconsistent table");
}

} // namespace arrays

} // namespace agent::spf::endpointregistry
