#include "endpointregistry/NamedStringArray.h"

#include "endpointregistry/Loggers.h"
#include "endpointregistry/detail/ArrayAccess.h"
#include "endpointregistry/detail/NameListing.h"

#include "sharedmemory/SegmentOpeners.h"

#include <algorithm>
#include <chrono>
#include <exception>
#include <sched.h>
#include <stdexcept>

namespace agent::spf::endpointregistry {

namespace os = foundation::os;

namespace {

using foundation::log::severity;
using sharedmemory::SharedMemory;

[[noreturn]] void refuse(const std::string& what) {
    getLogger().log(severity::error, "NamedStringArray::insert(): The new entry ", what, ".");
    throw std::invalid_argument("NamedStringArray new entry " + what);
}

void checkEntry(const std::vector<std::string>& entry) {
    if (entry.size() > ArrayRows::mostElements) {
        refuse("cannot have more than 127 elements");
    }
    if (std::all_of(entry.begin(), entry.end(), [](const auto& e) { return e.empty(); })) {
        refuse("cannot be empty");
    }
    // It would end the element, and the next reader would take the rest for another one.
    if (std::any_of(entry.begin(), entry.end(),
                    [](const auto& e) { return e.find('\0') != std::string::npos; })) {
        refuse("cannot contain zero bytes");
    }
}

void logMissing(const char* what) {
    getLogger().log(severity::warning, "NamedStringArray::erase(): ", what);
}

/// Tries until the base is initialised or removed. A claim that is not fulfilled for long is taken
/// back: the id of a killed process can come to stand for another one, and a hostile member can
/// write any id there. A process that was only slow finds its claim gone and tries again.
void initialize(NamedStringArray& array, SharedMemory& base, const os::Group& group) {
    constexpr auto patience = std::chrono::seconds(2);
    auto limit = std::chrono::steady_clock::now() + patience;
    while (!array.initializeBase(base) && base.isStillNamed()) {
        if (std::chrono::steady_clock::now() > limit) {
            const LockedFile lock = arrays::lock(group);
            const ArrayBase view(base.getPointer());
            if (!view.isInitialised()) {
                view.clearClaim(view.claimant());
            }
            limit = std::chrono::steady_clock::now() + patience;
        }
        ::sched_yield();
    }
}

} // namespace

// By value is the published signature.
// NOLINTBEGIN(performance-unnecessary-value-param)

void NamedStringArray::insert(const std::string& element) {
    insert(std::vector<std::string>{element});
}

void NamedStringArray::insert(std::initializer_list<std::string> entry) {
    insert(std::vector<std::string>(entry));
}

void NamedStringArray::insert(std::vector<std::string> entry) {
    insert(entry, os::Group(trustee));
}

void NamedStringArray::insert(const Entry& entry, const os::Group& group) {
    checkEntry(entry);
    for (;;) {
        SharedMemory base =
            SharedMemory::Openers::createOrFind(baseName, ArrayBase::size, group, implementation);
        if (!arrays::isBase(base)) {
            arrays::failInconsistent(baseName);
        }
        initialize(*this, base, group);
        if (auto locked = arrays::lockIfStillNamed(std::move(base), group)) {
            insertLocked(locked->segment, entry, group);
            return;
        }
    }
}

void NamedStringArray::insertLocked(SharedMemory& base, const Entry& entry,
                                    const os::Group& group) {
    const ArrayBase view(base.getPointer());
    if (!view.isInitialised() || !view.isConsistent() || !arrays::isAcceptable(view.current())) {
        arrays::failInconsistent(baseName);
    }
    const ArrayBase::Descriptor before = view.current();
    const std::string containerName = getContainerName(baseName, before.generation);
    if (arrays::belongsToOtherVersion(baseName, containerName, group)) {
        arrays::failInconsistent(baseName);
    }
    SharedMemory container = SharedMemory::Openers::createOrFind(
        containerName, getContainerSize(before.length, before.width), group, implementation);
    if (container.isCreator()) {
        container.makePersistent();
    }
    const std::size_t needed = ArrayRows::widthFor(entry);
    resizeContainer(base, container, needed);

    // Another member may have written there since the size was checked.
    const ArrayBase::Descriptor now = view.current();
    if (container.getSize() < getContainerSize(now.length, now.width)) {
        arrays::failInconsistent(baseName);
    }
    if (now.width < needed) {
        return; // A step of 0 leaves no place for anything.
    }
    const ArrayRows rows(container.getPointer(), now.length, now.width);
    if (const std::size_t row = rows.firstFree(); row < rows.count()) {
        rows.write(row, entry);
    }
}

void NamedStringArray::erase(const std::string& element) {
    erase(std::vector<std::string>{element});
}

void NamedStringArray::erase(std::initializer_list<std::string> entry) {
    erase(std::vector<std::string>(entry));
}

void NamedStringArray::erase(std::vector<std::string> entry) {
    erase(entry, os::Group(trustee));
}

void NamedStringArray::erase(const Entry& entry, const os::Group& group) {
    for (;;) {
        SharedMemory base = arrays::findBase(baseName, group);
        if (!base.isAttached()) {
            logMissing("Base shared memory could not be found.");
            return;
        }
        if (!ArrayBase(base.getPointer()).isInitialised()) {
            return;
        }
        if (auto locked = arrays::lockIfStillNamed(std::move(base), group)) {
            eraseLocked(locked->segment, entry, group);
            return;
        }
    }
}

void NamedStringArray::eraseLocked(SharedMemory& base, const Entry& entry, const os::Group& group) {
    const ArrayBase view(base.getPointer());
    const ArrayBase::Descriptor now = view.current();
    SharedMemory container =
        view.isConsistent() ? arrays::findContainer(baseName, now, group) : SharedMemory();
    if (!container.isAttached()) {
        logMissing("Container shared memory could not be found.");
        return;
    }
    const ArrayRows rows(container.getPointer(), now.length, now.width);
    for (std::size_t row = 0; row < rows.count(); ++row) {
        if (rows.equals(row, entry)) {
            rows.free(row);
            shrink(base, container);
            return;
        }
    }
    logMissing("Entry could not be found.");
}

void NamedStringArray::shrink(SharedMemory& base, SharedMemory& container) {
    try {
        resizeContainer(base, container, 0);
    } catch (const std::exception& error) {
        // The entry is gone, which is what was asked for. Whoever withdraws one must not fail
        // because the system has no memory for a smaller table just now.
        getLogger().log(severity::warning,
                        "NamedStringArray::erase(): The table could not shrink: ", error.what());
    }
}

std::vector<std::vector<std::string>>
NamedStringArray::filter(std::vector<std::string> substrings) {
    return filter(substrings, os::Group(trustee));
}

std::vector<NamedStringArray::Entry> NamedStringArray::filter(const Entry& substrings,
                                                              const os::Group& group) {
    for (;;) {
        SharedMemory base = arrays::findBase(baseName, group);
        if (!base.isAttached() || !ArrayBase(base.getPointer()).isInitialised()) {
            return {};
        }
        if (const auto locked = arrays::lockIfStillNamed(std::move(base), group)) {
            return filterLocked(locked->segment, substrings, group);
        }
    }
}

std::vector<NamedStringArray::Entry> NamedStringArray::filterLocked(const SharedMemory& base,
                                                                    const Entry& substrings,
                                                                    const os::Group& group) const {
    std::vector<Entry> found;
    const ArrayBase view(base.getPointer());
    const ArrayBase::Descriptor now = view.current();
    if (!view.isConsistent() || now.length == 0) {
        return found;
    }
    const SharedMemory container = arrays::findContainer(baseName, now, group);
    if (!container.isAttached()) {
        return found;
    }
    const ArrayRows rows(container.getPointer(), now.length, now.width);
    for (std::size_t row = 0; row < rows.count(); ++row) {
        if (!rows.isFree(row) && containsEvery(rows.firstElement(row), substrings)) {
            found.push_back(rows.elements(row));
        }
    }
    return found;
}

// NOLINTEND(performance-unnecessary-value-param)

std::string NamedStringArray::getTrustee() const {
    return arrays::findAnyBase(baseName, os::Group(trustee)).getTrustee();
}

} // namespace agent::spf::endpointregistry
