#include "endpointregistry/NamedStringArray.h"
#include "endpointregistry/detail/ArrayRows.h"
#include "endpointregistry/detail/NameListing.h"
#include "endpointregistry/detail/Table.h"

#include <utility>

namespace agent::spf::endpointregistry {

using sharedmemory::SharedMemory;

namespace {

/// How often a table that somebody changes under a lock that nobody else gets is read again.
constexpr int mostReadings = 1000;

ArrayBase viewOf(const SharedMemory& base) {
    return ArrayBase(base.getPointer());
}

} // namespace

/// Calls `readOnce` with the initialised base, under the lock. Where a holder does not let go of
/// it, it is called without, until it returns the same twice; somebody who was stopped changes
/// nothing. What it returns by default stands for a table that is not there, or cannot be read.
template<typename Result, typename ReadOnce>
Result Table::readSafely(ReadOnce readOnce) {
    Result before;
    for (int readings = 0; readings < mostReadings; ++readings) {
        const SharedMemory base = access.findBase(shape.baseName);
        if (!base.isAttached() || !viewOf(base).isInitialised()) {
            return {};
        }
        const auto lock = access.tryLock(NamedStringArray::readTimeout);
        // One that the system has removed may be read as well: what lives is to be found.
        if (SharedMemory::Openers::isMarkedRemoved(base)) {
            continue;
        }
        Result now = readOnce(base);
        if (lock || (readings > 0 && now == before)) {
            return now;
        }
        before = std::move(now);
    }
    return {};
}

Table::Reading Table::read(const Row& substrings) {
    return readSafely<Reading>([&](const SharedMemory& base) -> Reading {
        const ArrayBase::Descriptor now = viewOf(base).current();
        if (!viewOf(base).isConsistent()) {
            return {};
        }
        Reading reading{SharedMemory::Openers::tokenOf(base), {}};
        if (now.length == 0) {
            return reading;
        }
        const SharedMemory container = access.findContainer(shape.baseName, now);
        if (!container.isAttached()) {
            return {};
        }
        const ArrayRows rows(container.getPointer(), now.length, now.width);
        for (std::size_t row = 0; row < rows.count(); ++row) {
            if (!rows.isFree(row) && containsEvery(rows.firstElement(row), substrings)) {
                reading.rows.push_back(rows.elements(row));
            }
        }
        return reading;
    });
}

std::pair<unsigned long, unsigned long> Table::dimensions() {
    using Dimensions = std::pair<unsigned long, unsigned long>;
    return readSafely<Dimensions>([](const SharedMemory& base) {
        const ArrayBase::Descriptor now = viewOf(base).current();
        return Dimensions(now.length, now.width);
    });
}

} // namespace agent::spf::endpointregistry
