#include "endpointregistry/NamedStringArray.h"
#include "endpointregistry/detail/ArrayRows.h"
#include "endpointregistry/detail/NameListing.h"
#include "endpointregistry/detail/Table.h"
#include "foundation/os/RetryFor.h"

#include <chrono>
#include <optional>
#include <utility>

namespace agent::spf::endpointregistry {

using sharedmemory::SharedMemory;

namespace {

ArrayBase viewOf(const SharedMemory& base) {
    return ArrayBase(base.getPointer());
}

} // namespace

/// Calls `readOnce` with the initialised base, under the lock. Where a holder does not let go of
/// it, it is called without, until it returns the same twice; somebody who was stopped changes
/// nothing. Where others change the table all the time, the last reading has to do, which is then
/// not certain. What it returns by default stands for a table that is not there.
template<typename Result, typename ReadOnce>
Table::Outcome<Result> Table::readSafely(ReadOnce readOnce) {
    using Clock = std::chrono::steady_clock;
    std::optional<Result> before;
    std::optional<Clock::time_point> end;
    for (foundation::os::Backoff backoff;; backoff.sleep()) {
        const SharedMemory base = access.findBase(shape.baseName);
        if (!base.isAttached() || !viewOf(base).isInitialised()) {
            return {Result(), true};
        }
        const auto lock = access.tryLock(TableAccess::Lock::preferred);
        const auto now = Clock::now();
        end = end.value_or(now + NamedStringArray::readTimeout);
        // It may have been removed while the lock was waited for, and its container's name be that
        // of another one's by now.
        if (SharedMemory::Openers::isRemoved(base) && now < *end) {
            access.lookAgain();
            continue;
        }
        Result read = readOnce(base);
        if (lock || read == before || now >= *end) {
            const bool isCertain = lock || read == before;
            return {std::move(read), isCertain};
        }
        before = std::move(read);
    }
}

Table::Reading Table::read(const Row& substrings) {
    auto [reading, isCertain] = readSafely<Reading>([&](const SharedMemory& base) -> Reading {
        const ArrayBase::Descriptor now = viewOf(base).current();
        if (!viewOf(base).isConsistent()) {
            return {};
        }
        Reading found{SharedMemory::Openers::tokenOf(base), {}};
        if (now.length == 0) {
            return found;
        }
        const SharedMemory container = access.findContainer(shape.baseName, now);
        if (!container.isAttached()) {
            return {};
        }
        const ArrayRows rows(container.getPointer(), now.length, now.width);
        for (std::size_t row = 0; row < rows.count(); ++row) {
            if (!rows.isFree(row) && containsEvery(rows.firstElement(row), substrings)) {
                found.rows.push_back(rows.elements(row));
            }
        }
        return found;
    });
    if (!isCertain) {
        reading.base.reset();
    }
    return std::move(reading);
}

std::pair<unsigned long, unsigned long> Table::dimensions() {
    using Dimensions = std::pair<unsigned long, unsigned long>;
    return readSafely<Dimensions>([](const SharedMemory& base) {
               const ArrayBase::Descriptor now = viewOf(base).current();
               return Dimensions(now.length, now.width);
           })
        .result;
}

} // namespace agent::spf::endpointregistry
