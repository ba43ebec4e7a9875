#include "sharedmemory/SharedMemory.h"

#include "foundation/os/Accounts.h"
#include "foundation/os/Group.h"
#include "sharedmemory/Failure.h"
#include "sharedmemory/PosixSegment.h"
#include "sharedmemory/Segment.h"
#include "sharedmemory/SegmentOpeners.h"
#include "sharedmemory/SysVSegment.h"

#include <cerrno>
#include <set>
#include <stdexcept>
#include <utility>

namespace agent::spf::sharedmemory {

namespace {

namespace os = foundation::os;
using Segments = SharedMemory::ImplementationSpecifications;

/// What one implementation does.
struct Backend {
    decltype(&createPosixSegment) create;
    decltype(&createFilledPosixSegment) createFilled;
    decltype(&findPosixSegment) find;
};

Backend enter(std::size_t size, Segments implementation) {
    if (size == 0) {
        throw std::invalid_argument("Shared memory size cannot be 0");
    }
    switch (implementation) {
    case Segments::Posix:
        return {createPosixSegment, createFilledPosixSegment, findPosixSegment};
    case Segments::SysV:
        return {createSysVSegment, createFilledSysVSegment, findSysVSegment};
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

/// What a caller takes for its private POSIX segment must never come from a group. Users of System
/// V segments are told to ask which it is.
bool looksInGroups(const os::Group& trustee, Segments implementation) {
    return trustee.isNone() && implementation == Segments::SysV;
}

} // namespace

SharedMemory SharedMemory::create(const std::string& name, std::size_t size,
                                  const std::string& trustee,
                                  ImplementationSpecifications implementation) {
    return Openers::create(name, size, trustee, implementation);
}

SharedMemory SharedMemory::Openers::create(const std::string& name, std::size_t size,
                                           const os::Group& trustee,
                                           ImplementationSpecifications implementation) {
    return SharedMemory(enter(size, implementation).create(name, size, trustee));
}

SharedMemory SharedMemory::createFilled(const std::string& name, std::string_view contents,
                                        const std::string& trustee,
                                        ImplementationSpecifications implementation) {
    const Backend backend = enter(contents.size(), implementation);
    return SharedMemory(backend.createFilled(name, contents, trustee));
}

SharedMemory SharedMemory::find(const std::string& name, std::size_t size,
                                const std::string& trustee,
                                ImplementationSpecifications implementation) {
    return Openers::find(name, size, trustee, implementation);
}

SharedMemory SharedMemory::Openers::find(const std::string& name, std::size_t size,
                                         const os::Group& trustee,
                                         ImplementationSpecifications implementation) {
    const Backend backend = enter(size, implementation);
    SegmentLookup found = backend.find(name, size, trustee);
    if (!found.isTaken && looksInGroups(trustee, implementation)) {
        for (const std::string& group : getOwnGroupNames()) {
            found = backend.find(name, size, os::Group(group));
            if (found.isTaken) {
                break;
            }
        }
    }
    return SharedMemory(std::move(found.segment));
}

SharedMemory SharedMemory::Openers::findExactly(const std::string& name, std::size_t size,
                                                const os::Group& trustee,
                                                ImplementationSpecifications implementation) {
    return SharedMemory(enter(size, implementation).find(name, size, trustee).segment);
}

SharedMemory SharedMemory::createOrFind(const std::string& name, std::size_t size,
                                        const std::string& trustee,
                                        ImplementationSpecifications implementation) {
    return Openers::createOrFind(name, size, trustee, implementation);
}

SharedMemory SharedMemory::Openers::createOrFind(const std::string& name, std::size_t size,
                                                 const os::Group& trustee,
                                                 ImplementationSpecifications implementation) {
    const Backend backend = enter(size, implementation);
    for (;;) {
        SegmentLookup found = backend.find(name, size, trustee);
        if (found.segment) {
            return SharedMemory(std::move(found.segment));
        }
        if (found.isTaken) {
            fail("the segment there cannot be used", name, EEXIST);
        }
        // Another process may be first, and may even remove its segment before the next look.
        if (auto created = backend.create(name, size, trustee)) {
            return SharedMemory(std::move(created));
        }
    }
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
