#include "sharedmemory/SharedMemory.h"

#include "sharedmemory/PosixSegment.h"
#include "sharedmemory/Segment.h"

#include <stdexcept>
#include <utility>

namespace agent::spf::sharedmemory {

namespace {

void checkArguments(std::size_t size, SharedMemory::ImplementationSpecifications implementation) {
    if (size == 0) {
        throw std::invalid_argument("Shared memory size cannot be 0");
    }
    if (implementation != SharedMemory::ImplementationSpecifications::Posix) {
        throw std::invalid_argument("Shared memory implementation is not available");
    }
}

} // namespace

SharedMemory SharedMemory::create(const std::string& name, std::size_t size,
                                  const std::string& trustee,
                                  ImplementationSpecifications implementation) {
    checkArguments(size, implementation);
    return SharedMemory(createPosixSegment(name, size, trustee));
}

SharedMemory SharedMemory::find(const std::string& name, std::size_t size,
                                const std::string& trustee,
                                ImplementationSpecifications implementation) {
    checkArguments(size, implementation);
    return SharedMemory(findPosixSegment(name, size, trustee).segment);
}

SharedMemory SharedMemory::createOrFind(const std::string& name, std::size_t size,
                                        const std::string& trustee,
                                        ImplementationSpecifications implementation) {
    checkArguments(size, implementation);
    for (;;) {
        PosixLookup found = findPosixSegment(name, size, trustee);
        if (found.segment) {
            return SharedMemory(std::move(found.segment));
        }
        if (found.isTaken) {
            throw std::runtime_error("Shared memory error: the segment there cannot be used");
        }
        // Another process may be first, and may even remove its segment before the next look.
        if (auto created = createPosixSegment(name, size, trustee)) {
            return SharedMemory(std::move(created));
        }
    }
}

SharedMemory::SharedMemory(std::unique_ptr<Segment> segment) noexcept
    : segment(std::move(segment)) {
}

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

void* SharedMemory::getPointer() const noexcept {
    return segment ? segment->address() : nullptr;
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
