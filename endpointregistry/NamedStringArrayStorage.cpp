#include "endpointregistry/Loggers.h"
#include "endpointregistry/NamedStringArray.h"
#include "endpointregistry/detail/ArrayAccess.h"
#include "foundation/os/Process.h"
#include "sharedmemory/SegmentOpeners.h"

#include <algorithm>
#include <limits>
#include <stdexcept>
#include <unistd.h>

namespace agent::spf::endpointregistry {

namespace os = foundation::os;

namespace {

using foundation::log::severity;
using sharedmemory::SharedMemory;

constexpr unsigned long largest = std::numeric_limits<unsigned long>::max();
constexpr unsigned long defaultLengthStep = 10;
constexpr unsigned long defaultWidthStep = 4;

/// The next multiple of the step, 0 for a step of 0; the largest number there is when it would be
/// larger.
unsigned long roundUp(unsigned long value, unsigned long step) {
    if (step == 0) {
        return 0;
    }
    const unsigned long steps = value / step + (value % step == 0 ? 0 : 1);
    return steps > largest / step ? largest : steps * step;
}

/// What the entries of a table take.
struct Usage {
    unsigned long rows = 0;
    unsigned long widest = 0;
};

Usage usageOf(const ArrayRows& rows) {
    Usage usage;
    for (std::size_t row = 0; row < rows.count(); ++row) {
        if (!rows.isFree(row)) {
            ++usage.rows;
            usage.widest = std::max(usage.widest, rows.usedWidth(row));
        }
    }
    return usage;
}

/// Removes a container, of whatever size.
void removeContainer(const std::string& name, const os::Group& group) {
    for (;;) {
        SharedMemory container = arrays::find(name, 1, group);
        if (!container.isAttached()) {
            return;
        }
        container.markForDeletion();
    }
}

/// Takes the lock under a claim, which it gives up when the lock cannot be had.
LockedFile lockForClaim(const ArrayBase& base, const os::Group& group) {
    try {
        return arrays::lock(group);
    } catch (...) {
        base.clearClaim(::getpid());
        throw;
    }
}

/// The first generation after this one whose container's name is free for this table.
unsigned long generationAfter(unsigned long generation, const std::string& baseName,
                              const os::Group& group) {
    do {
        if (generation == largest) {
            arrays::failInconsistent(baseName);
        }
        ++generation;
    } while (arrays::belongsToOtherVersion(
        baseName, NamedStringArray::getContainerName(baseName, generation), group));
    return generation;
}

} // namespace

NamedStringArray::NamedStringArray(const std::string& name, unsigned long version,
                                   const std::string& trustee)
    : baseName(getBaseName(name, version, trustee))
    , trustee(trustee)
    , implementation(arrays::implementation)
    , lengthStep(defaultLengthStep)
    , widthStep(defaultWidthStep) {
}

std::string NamedStringArray::getBaseName(const std::string& name, unsigned long version,
                                          const std::string& /*trustee*/) {
    if (name.empty()) {
        throw std::invalid_argument("NamedStringArray name cannot be empty.");
    }
    return name + "v" + std::to_string(version);
}

std::string NamedStringArray::getContainerName(const std::string& baseName,
                                               unsigned long generation) {
    return baseName + std::to_string(generation);
}

unsigned long NamedStringArray::getContainerSize(unsigned long length, unsigned long width) {
    const bool fits = width == 0 || length <= (largest - ArrayRows::overhead) / width;
    return fits ? ArrayRows::overhead + length * width : largest;
}

void NamedStringArray::setLengthStep(unsigned long step) {
    lengthStep = step;
}

void NamedStringArray::setWidthStep(unsigned long step) {
    widthStep = step;
}

bool NamedStringArray::initializeBase(SharedMemory& base) {
    if (base.isCreator()) {
        base.makePersistent();
    }
    const ArrayBase view(base.getPointer());
    const bool wasInitialised = view.isInitialised();
    if (const pid_t claimant = view.claim(::getpid()); claimant != 0) {
        if (view.isInitialised()) {
            return true;
        }
        if (!foundation::os::processLives(claimant)) {
            view.clearClaim(claimant);
        }
        return false;
    }
    const os::Group group(trustee);
    LockedFile lock = lockForClaim(view, group);
    lock.makePersistent();
    // The claim may have been taken back, since the lock was long in coming, and another thread of
    // this process may have done the work.
    if (view.claimant() != ::getpid()) {
        return false;
    }
    if (!wasInitialised && view.isInitialised()) {
        return true;
    }
    ArrayBase::Descriptor first = view.current();
    first.generation = generationAfter(0, baseName, group);
    if (!view.isInitialised()) {
        view.setCurrent(first);
    }
    if (!view.setInitialised()) {
        view.clearClaim(::getpid()); // Nobody is at it any more.
        getLogger().log(severity::error, "NamedStringArray::initializeBase: "
                                         "Inconsistent initial state of base.");
        throw std::runtime_error("System Error: Endpoint::NamedStringArray::initializeBase: "
                                 "Inconsistent initial state");
    }
    return true;
}

void NamedStringArray::resizeContainer(SharedMemory& base, SharedMemory& container,
                                       unsigned long neededWidth) {
    clearLeftoverContainer(base, container);
    const ArrayBase view(base.getPointer());
    const ArrayBase::Descriptor now = view.current();
    if (container.getSize() < getContainerSize(now.length, now.width)) {
        arrays::failInconsistent(baseName);
    }
    const ArrayRows rows(container.getPointer(), now.length, now.width);
    const Usage usage = usageOf(rows);

    ArrayBase::Descriptor next;
    next.length = roundUp(usage.rows + (neededWidth == 0 ? 0 : 1), lengthStep);
    next.width = roundUp(std::max(usage.widest, neededWidth), widthStep);
    if (next.length == now.length && next.width == now.width) {
        return;
    }
    if (!arrays::isAcceptable(next)) {
        getLogger().log(severity::error, "NamedStringArray: The table would be too large: <",
                        baseName, ">.");
        throw std::runtime_error("System Error: NamedStringArray: Too large a table");
    }
    const os::Group group(trustee);
    next.generation = generationAfter(now.generation, baseName, group);
    view.setOther(next);
    SharedMemory resized = makeContainer(next.generation, next.length, next.width, group);
    rows.packInto(ArrayRows(resized.getPointer(), next.length, next.width), usage.widest);
    view.flip();
    // The old one goes before the descriptor that leads to it, so that a crash never leaves one
    // that nobody knows of.
    container.markForDeletion();
    container = std::move(resized);
    view.setOther({});
}

SharedMemory NamedStringArray::makeContainer(unsigned long generation, unsigned long length,
                                             unsigned long width, const os::Group& group) const {
    const std::string name = getContainerName(baseName, generation);
    // From an interrupted resize, or from an earlier table of this name.
    removeContainer(name, group);
    SharedMemory made =
        SharedMemory::Openers::create(name, getContainerSize(length, width), group, implementation);
    if (!made.isAttached()) {
        arrays::failInconsistent(baseName);
    }
    made.makePersistent();
    return made;
}

void NamedStringArray::clearLeftoverContainer(SharedMemory& base, SharedMemory& /*container*/) {
    const ArrayBase view(base.getPointer());
    const unsigned long leftover = view.other().generation;
    const std::string name = getContainerName(baseName, leftover);
    const os::Group group(trustee);
    if (leftover != 0 && leftover != view.current().generation &&
        !arrays::belongsToOtherVersion(baseName, name, group)) {
        removeContainer(name, group);
    }
    view.setOther({});
}

std::pair<unsigned long, unsigned long> getNamedStringArrayDimensions(const std::string& name,
                                                                      unsigned long version,
                                                                      const std::string& trustee) {
    const std::string baseName = NamedStringArray::getBaseName(name, version, trustee);
    for (;;) {
        SharedMemory base = arrays::findAnyBase(baseName, os::Group(trustee));
        if (!base.isAttached() || !ArrayBase(base.getPointer()).isInitialised()) {
            return {0, 0};
        }
        const os::Group owner(base.getTrustee());
        if (const auto locked = arrays::lockIfStillNamed(std::move(base), owner)) {
            const ArrayBase::Descriptor now = locked->view().current();
            return {now.length, now.width};
        }
    }
}

void deleteNamedStringArray(const std::string& name, unsigned long version,
                            const std::string& trustee) {
    const std::string baseName = NamedStringArray::getBaseName(name, version, trustee);
    for (;;) {
        SharedMemory base = arrays::findAnyBase(baseName, os::Group(trustee));
        if (!base.isAttached()) {
            getLogger().log(severity::warning, "NamedStringArray::deleteNamedStringArray(): "
                                               "Base shared memory could not be found.");
            return;
        }
        const os::Group owner(base.getTrustee());
        // Under the lock, or an entry could be inserted between this look and the removal.
        if (auto locked = arrays::lockIfStillNamed(std::move(base), owner)) {
            locked->segment.markForDeletion();
            if (locked->view().isInitialised()) {
                locked->lock.markForDeletion();
                arrays::findContainer(baseName, locked->view().current(), owner).markForDeletion();
            }
            return;
        }
    }
}

} // namespace agent::spf::endpointregistry
