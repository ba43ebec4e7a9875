#include "endpointregistry/Loggers.h"
#include "endpointregistry/NamedStringArray.h"
#include "endpointregistry/detail/Table.h"
#include "foundation/os/Process.h"

#include <unistd.h>
#include <utility>

namespace agent::spf::endpointregistry {

namespace os = foundation::os;

namespace {

using foundation::log::severity;
using sharedmemory::SharedMemory;

/// Takes the lock under a claim, which it gives up when the lock cannot be had.
LockedFile lockForClaim(const ArrayBase& base, TableAccess& access) {
    try {
        return access.lock();
    } catch (...) {
        base.clearClaim(::getpid());
        throw;
    }
}

/// The base that questions about a table are answered from: that of the trustee; else what an empty
/// trustee finds, but not another group's when the trustee is a group.
SharedMemory findAnyBase(const std::string& baseName, const std::string& trustee) {
    const os::Group group(trustee);
    SharedMemory base = TableAccess(group).findBase(baseName);
    if (base.isAttached()) {
        return base;
    }
    if (!group.isNone()) {
        return TableAccess(os::Group({})).findBase(baseName);
    }
    base = SharedMemory::find(baseName, ArrayBase::size, trustee, TableAccess::implementation);
    return arrays::isBase(base) ? std::move(base) : SharedMemory();
}

} // namespace

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
        if (!os::processLives(claimant)) {
            view.clearClaim(claimant);
        }
        return false;
    }
    const os::Group group(trustee);
    TableAccess access(group);
    LockedFile lock = lockForClaim(view, access);
    lock.makePersistent();
    // Whoever had the lock in the meantime may have done the work, or have taken the claim back.
    if (!wasInitialised && view.isInitialised()) {
        return true;
    }
    if (view.claimant() != ::getpid()) {
        return false;
    }
    if (!view.initialize(access.generationAfter(0, baseName))) {
        view.clearClaim(::getpid()); // Nobody is at it any more.
        arrays::failInitialState();
    }
    return true;
}

std::string NamedStringArray::getTrustee() const {
    return findAnyBase(baseName, trustee).getTrustee();
}

std::pair<unsigned long, unsigned long> getNamedStringArrayDimensions(const std::string& name,
                                                                      unsigned long version,
                                                                      const std::string& trustee) {
    const std::string baseName = NamedStringArray::getBaseName(name, version, trustee);
    const SharedMemory base = findAnyBase(baseName, trustee);
    if (!base.isAttached()) {
        return {0, 0};
    }
    const os::Group owner(base.getTrustee());
    TableAccess access(owner);
    return Table({baseName}, access).dimensions();
}

void deleteNamedStringArray(const std::string& name, unsigned long version,
                            const std::string& trustee) {
    const std::string baseName = NamedStringArray::getBaseName(name, version, trustee);
    for (;;) {
        SharedMemory base = findAnyBase(baseName, trustee);
        if (!base.isAttached()) {
            getLogger().log(severity::warning, "NamedStringArray::deleteNamedStringArray(): "
                                               "Base shared memory could not be found.");
            return;
        }
        const os::Group owner(base.getTrustee());
        TableAccess access(owner);
        // Under the lock, or an entry could be inserted between this look and the removal.
        LockedFile lock = access.lock();
        if (!base.isStillNamed()) {
            continue;
        }
        base.markForDeletion();
        const ArrayBase view(base.getPointer());
        if (view.isInitialised()) {
            lock.markForDeletion();
            access.findContainer(baseName, view.current()).markForDeletion();
        }
        base = SharedMemory(); // Before the lock.
        return;
    }
}

} // namespace agent::spf::endpointregistry
