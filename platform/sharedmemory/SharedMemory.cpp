#include "sharedmemory/SharedMemory.h"

#include "foundation/os/Accounts.h"
#include "foundation/os/Group.h"
#include "sharedmemory/Failure.h"
#include "sharedmemory/PosixSegment.h"
#include "sharedmemory/Segment.h"
#include "sharedmemory/SegmentOpeners.h"
#include "sharedmemory/SysVSegment.h"

#include <cerrno>
#include <memory>
#include <set>
#include <stdexcept>
#include <utility>

namespace agent::spf::sharedmemory {

namespace {

namespace os = foundation::os;
using Segments = SharedMemory::ImplementationSpecifications;

bool isSysV(std::size_t size, Segments implementation) {
    if (size == 0) {
        throw std::invalid_argument("Shared memory size cannot be 0");
    }
    switch (implementation) {
    case Segments::Posix:
        return false;
    case Segments::SysV:
        return true;
    }
    throw std::invalid_argument("Shared memory implementation is not available");
}

std::set<std::string> getOwnGroupNames() {
    auto names = os::findOwnGroupNames();
    if (!names) {
        fail("cannot ask for the caller's groups", {}, errno);
    }
    return std::move(*names);
}

/// Finds a segment, or makes it when it is missing.
template<typename Find, typename Create>
std::unique_ptr<SharedMemory::Segment> findOrCreate(const std::string& name, Find find,
                                                    Create create) {
    for (;;) {
        SegmentLookup found = find();
        if (found.segment) {
            return std::move(found.segment);
        }
        if (found.isTaken) {
            fail("the segment there cannot be used", name, EEXIST);
        }
        // Another process may be first, and may even remove its segment before the next look.
        if (auto created = create()) {
            return created;
        }
    }
}

} // namespace

SharedMemory SharedMemory::create(const std::string& name, std::size_t size,
                                  const std::string& trustee,
                                  ImplementationSpecifications implementation) {
    const os::Group group(trustee);
    return isSysV(size, implementation) ? Openers(group).create(name, size)
                                        : SharedMemory(createPosixSegment(name, size, group));
}

SharedMemory SharedMemory::createFilled(const std::string& name, std::string_view contents,
                                        const std::string& trustee,
                                        ImplementationSpecifications implementation) {
    const os::Group group(trustee);
    return isSysV(contents.size(), implementation)
               ? Openers(group).createFilled(name, contents)
               : SharedMemory(createFilledPosixSegment(name, contents, group));
}

SharedMemory SharedMemory::find(const std::string& name, std::size_t size,
                                const std::string& trustee,
                                ImplementationSpecifications implementation) {
    const os::Group group(trustee);
    if (!isSysV(size, implementation)) {
        return SharedMemory(findPosixSegment(name, size, group).segment);
    }
    SegmentLookup found = SysVSegments(group).find(name, size);
    // What a caller takes for its private POSIX segment must never come from a group. Users of
    // System V segments are told to ask which it is.
    if (!found.isTaken && group.isNone()) {
        for (const std::string& own : getOwnGroupNames()) {
            found = SysVSegments(os::Group(own)).find(name, size);
            if (found.isTaken) {
                break;
            }
        }
    }
    return SharedMemory(std::move(found.segment));
}

SharedMemory SharedMemory::createOrFind(const std::string& name, std::size_t size,
                                        const std::string& trustee,
                                        ImplementationSpecifications implementation) {
    const os::Group group(trustee);
    if (isSysV(size, implementation)) {
        return Openers(group).createOrFind(name, size);
    }
    return SharedMemory(findOrCreate(
        name, [&] { return findPosixSegment(name, size, group); },
        [&] { return createPosixSegment(name, size, group); }));
}

SharedMemory SharedMemory::Openers::create(const std::string& name, std::size_t size) {
    return SharedMemory(segments.create(name, size));
}

SharedMemory SharedMemory::Openers::createFilled(const std::string& name,
                                                 std::string_view contents) {
    return SharedMemory(segments.createFilled(name, contents));
}

SharedMemory SharedMemory::Openers::createOrFind(const std::string& name, std::size_t size) {
    return SharedMemory(findOrCreate(
        name, [&] { return segments.find(name, size); },
        [&] { return segments.create(name, size); }));
}

SharedMemory SharedMemory::Openers::findExactly(const std::string& name, std::size_t size) {
    return SharedMemory(segments.find(name, size).segment);
}

SegmentToken SharedMemory::Openers::tokenOf(const SharedMemory& memory) {
    return dynamic_cast<const SysVSegment&>(*memory.segment).token();
}

bool SharedMemory::Openers::isRemoved(const SharedMemory& memory) {
    return dynamic_cast<const SysVSegment&>(*memory.segment).isRemoved();
}

bool SharedMemory::Openers::isTaken(const std::string& name) {
    return segments.find(name, 1).isTaken;
}

std::optional<std::string> SharedMemory::read(const std::string& name, std::size_t size,
                                              const std::string& trustee,
                                              ImplementationSpecifications implementation) {
    if (implementation == Segments::Posix && size != 0) {
        return readPosixSegment(name, size, os::Group(trustee));
    }
    const SharedMemory segment = find(name, size, trustee, implementation);
    if (!segment.isAttached()) {
        return std::nullopt;
    }
    return std::string(static_cast<const char*>(segment.getPointer()), size);
}

SharedMemory::SharedMemory(std::unique_ptr<Segment> segment) noexcept
    : segment(std::move(segment)) {
}

SharedMemory::SharedMemory() noexcept = default;

SharedMemory::SharedMemory(SharedMemory&& other) noexcept = default;

SharedMemory& SharedMemory::operator=(SharedMemory&& other) noexcept {
    if (this != &other) {
        const SharedMemory previous(std::exchange(segment, std::move(other.segment)));
    }
    return *this;
}

SharedMemory::~SharedMemory() {
    if (segment && segment->isRemovedAtEnd()) {
        segment->remove();
    }
}

bool SharedMemory::isAttached() const noexcept {
    return segment != nullptr;
}

bool SharedMemory::isCreator() const noexcept {
    return segment && segment->isCreator();
}

void* SharedMemory::getPointer() const {
    return segment ? segment->address() : nullptr;
}

void SharedMemory::overwriteAtRemoval(std::string_view bytes) {
    if (segment) {
        segment->setLastBytes(bytes);
    }
}

std::size_t SharedMemory::getSize() const noexcept {
    return segment ? segment->size() : 0;
}

bool SharedMemory::isStillNamed() const noexcept {
    return segment && segment->isStillNamed();
}

std::string SharedMemory::getTrustee() const {
    return segment ? segment->trusteeName() : std::string();
}

void SharedMemory::makePersistent() {
    if (segment) {
        segment->keepAtEnd();
    }
}

void SharedMemory::markForDeletion() {
    if (segment) {
        segment->removeAtEnd();
    }
}

} // namespace agent::spf::sharedmemory
