#include "endpointregistry/detail/Table.h"

#include "endpointregistry/Loggers.h"
#include "endpointregistry/NamedStringArray.h"
#include "endpointregistry/detail/ArrayRows.h"
#include "endpointregistry/detail/NameListing.h"

#include <algorithm>
#include <exception>
#include <stdexcept>
#include <utility>

namespace agent::spf::endpointregistry {

namespace {

using foundation::log::severity;
using sharedmemory::SharedMemory;

[[noreturn]] void refuse(const std::string& what) {
    getLogger().log(severity::error, "NamedStringArray::insert(): The new entry ", what, ".");
    throw std::invalid_argument("NamedStringArray new entry " + what);
}

void logMissing(const char* what) {
    getLogger().log(severity::warning, "NamedStringArray::erase(): ", what);
}

bool isInitialised(const SharedMemory& base) {
    return base.isAttached() && ArrayBase(base.getPointer()).isInitialised();
}

/// The rows of an attached container.
ArrayRows rowsOf(const SharedMemory& container, const ArrayBase::Descriptor& descriptor) {
    return {container.getPointer(), descriptor.length, descriptor.width};
}

bool isEmpty(const ArrayBase::Descriptor& descriptor) {
    return descriptor.length == 0 || descriptor.width == 0;
}

/// Frees all rows whose first element contains this string, and tells whether there were any.
bool freeContaining(const ArrayRows& rows, std::string_view part) {
    bool wasFreed = false;
    for (std::size_t row = 0; row < rows.count(); ++row) {
        if (!rows.isFree(row) && contains(rows.firstElement(row), part)) {
            rows.free(row);
            wasFreed = true;
        }
    }
    return wasFreed;
}

} // namespace

void Table::checkEntry(const Row& entry) {
    if (entry.size() > ArrayRows::maxElements) {
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

void Table::insert(const Row& entry) {
    checkEntry(entry);
    const LockedFile lock = access.lock();
    for (;;) {
        SharedMemory base = access.openOrCreateBase(shape.baseName);
        if (insertLocked(base, entry, OldRows::stay)) {
            return;
        }
    }
}

SharedMemory Table::openOrCreateBase() {
    SharedMemory base = access.findBase(shape.baseName);
    if (isInitialised(base)) {
        return base;
    }
    const LockedFile lock = access.lock();
    return access.openOrCreateBase(shape.baseName);
}

bool Table::insertReplacing(SharedMemory& base, const Row& entry) {
    checkEntry(entry);
    const LockedFile lock = access.lock();
    if (base.isStillNamed()) {
        return insertLocked(base, entry, OldRows::go);
    }
    access.lookAgain();
    return false;
}

bool Table::insertLocked(SharedMemory& base, const Row& entry, OldRows oldRows) {
    const ArrayBase view(base.getPointer());
    const ArrayBase::Descriptor before = view.current();
    if (!view.isInitialised() || !view.isConsistent() || !arrays::isAcceptable(before)) {
        arrays::failInconsistent(shape.baseName);
    }
    SharedMemory container = access.findContainer(shape.baseName, before);
    if (!container.isAttached() && !isEmpty(before)) {
        replaceLost(before, base);
        return false;
    }
    if (container.isAttached() && oldRows == OldRows::go) {
        freeContaining(rowsOf(container, before), entry.front());
    }
    const std::size_t needed = ArrayRows::widthFor(entry);
    resize(base, container, needed);

    // Another member may have written there since the size was checked.
    const ArrayBase::Descriptor now = view.current();
    if (container.getSize() < NamedStringArray::getContainerSize(now.length, now.width)) {
        arrays::failInconsistent(shape.baseName);
    }
    if (now.width < needed) {
        return true; // A step of 0 leaves no place for anything.
    }
    const ArrayRows rows = rowsOf(container, now);
    if (const std::size_t row = rows.firstFree(); row < rows.count()) {
        rows.write(row, entry);
    }
    return true;
}

void Table::replaceLost(const ArrayBase::Descriptor& container, SharedMemory& base) {
    const std::string name =
        NamedStringArray::getContainerName(shape.baseName, container.generation);
    if (access.isTaken(name) || access.belongsToOtherVersion(shape.baseName, name)) {
        arrays::failInconsistent(shape.baseName);
    }
    // Gone, as with the logout of the user who made it. A new base, whose token is another one,
    // tells the entries that were in it that they have lost their table.
    const std::string contents(static_cast<const char*>(base.getPointer()), ArrayBase::size);
    base.markForDeletion();
    base = SharedMemory();
    if (access.createBase(shape.baseName, contents).isAttached()) {
        access.createContainer(shape.baseName, container);
    }
}

void Table::erase(const Row& entry) {
    for (;;) {
        SharedMemory base = access.findBase(shape.baseName);
        if (!base.isAttached()) {
            logMissing("Base shared memory could not be found.");
            return;
        }
        if (!isInitialised(base)) {
            return;
        }
        const LockedFile lock = access.lock();
        if (base.isStillNamed()) {
            eraseLocked(base, entry);
            return;
        }
        access.lookAgain();
    }
}

void Table::eraseLocked(SharedMemory& base, const Row& entry) {
    const ArrayBase view(base.getPointer());
    const ArrayBase::Descriptor now = view.current();
    SharedMemory container =
        view.isConsistent() ? access.findContainer(shape.baseName, now) : SharedMemory();
    if (!container.isAttached()) {
        logMissing("Container shared memory could not be found.");
        return;
    }
    const ArrayRows rows = rowsOf(container, now);
    for (std::size_t row = 0; row < rows.count(); ++row) {
        if (rows.equals(row, entry)) {
            rows.free(row);
            shrink(base, container);
            return;
        }
    }
    logMissing("Entry could not be found.");
}

bool Table::eraseContaining(const std::string& part, TableAccess::Lock need) {
    for (;;) {
        SharedMemory base = access.findBase(shape.baseName);
        if (!isInitialised(base)) {
            // One that is closed to this process may have the rows.
            return base.isAttached() || !access.isTaken(shape.baseName);
        }
        const auto lock = access.tryLock(need);
        if (!lock) {
            return false;
        }
        if (!base.isStillNamed()) {
            access.lookAgain();
            continue;
        }
        const ArrayBase view(base.getPointer());
        const ArrayBase::Descriptor now = view.current();
        SharedMemory container =
            view.isConsistent() ? access.findContainer(shape.baseName, now) : SharedMemory();
        if (container.isAttached() && freeContaining(rowsOf(container, now), part)) {
            shrink(base, container);
        }
        return true;
    }
}

void Table::shrink(SharedMemory& base, SharedMemory& container) {
    try {
        resize(base, container, 0);
    } catch (const std::exception& error) {
        // The entry is gone, which is what was asked for. Whoever withdraws one must not fail
        // because the system has no memory for a smaller table just now.
        getLogger().log(severity::warning,
                        "NamedStringArray::erase(): The table could not shrink: ", error.what());
    }
}

} // namespace agent::spf::endpointregistry
