#include "endpointregistry/Loggers.h"
#include "endpointregistry/NamedStringArray.h"
#include "endpointregistry/detail/ArrayRows.h"
#include "endpointregistry/detail/Table.h"

#include <algorithm>
#include <limits>
#include <stdexcept>
#include <utility>

namespace agent::spf::endpointregistry {

namespace {

using foundation::log::severity;
using sharedmemory::SharedMemory;

/// The next multiple of the step, 0 for a step of 0; the largest number there is when it would be
/// larger.
unsigned long roundUp(unsigned long value, unsigned long step) {
    constexpr unsigned long largest = std::numeric_limits<unsigned long>::max();
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

[[noreturn]] void failTooLarge(const std::string& baseName) {
    getLogger().log(severity::error, "NamedStringArray: The table would be too large: <", baseName,
                    ">.");
    throw std::runtime_error("System Error: NamedStringArray: Too large a table");
}

} // namespace

void Table::resize(SharedMemory& base, SharedMemory& container, unsigned long neededWidth) {
    clearLeftover(base);
    const ArrayBase view(base.getPointer());
    const ArrayBase::Descriptor now = view.current();
    const bool hasRows = now.length != 0 && now.width != 0;
    if (hasRows &&
        container.getSize() < NamedStringArray::getContainerSize(now.length, now.width)) {
        arrays::failInconsistent(shape.baseName);
    }
    const ArrayRows rows(container.getPointer(), hasRows ? now.length : 0, now.width);
    const Usage usage = usageOf(rows);

    ArrayBase::Descriptor next;
    next.length = roundUp(usage.rows + (neededWidth == 0 ? 0 : 1), shape.lengthStep);
    next.width = roundUp(std::max(usage.widest, neededWidth), shape.widthStep);
    if (next.length == now.length && next.width == now.width) {
        return;
    }
    if (!arrays::isAcceptable(next)) {
        failTooLarge(shape.baseName);
    }
    next.generation = access.generationAfter(now.generation, shape.baseName);
    view.setOther(next);
    SharedMemory resized = access.createContainer(shape.baseName, next);
    rows.packInto(ArrayRows(resized.getPointer(), next.length, next.width), usage.widest);
    view.flip();
    // The old one goes before the descriptor that leads to it, so that a crash never leaves one
    // that nobody knows of.
    container.markForDeletion();
    container = std::move(resized);
    view.setOther({});
}

void Table::clearLeftover(const SharedMemory& base) {
    const ArrayBase view(base.getPointer());
    const unsigned long leftover = view.other().generation;
    const std::string name = NamedStringArray::getContainerName(shape.baseName, leftover);
    if (leftover != 0 && leftover != view.current().generation &&
        !access.belongsToOtherVersion(shape.baseName, name)) {
        access.removeContainer(name);
    }
    view.setOther({});
}

} // namespace agent::spf::endpointregistry
