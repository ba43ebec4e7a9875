#include "endpointregistry/detail/EndpointPosixImpl.h"

#include "endpointregistry/EntryName.h"
#include "endpointregistry/detail/AbandonedFile.h"
#include "endpointregistry/detail/EntrySegment.h"

namespace agent::spf::endpointregistry {

namespace {

using sharedmemory::SharedMemory;

constexpr auto implementation = SharedMemory::ImplementationSpecifications::Posix;

} // namespace

Endpoint::PosixImpl::PosixImpl(const DataPair& data, const std::string& groupTag,
                               const std::string& selectedKey, const std::string& trustee)
    : Impl(data, groupTag, selectedKey, trustee)
    , lockedFile(PosixImpl::createLockedFile())
    , sharedMemory(createSharedMemory(data)) {
}

Endpoint::PosixImpl::~PosixImpl() {
    // A forked child's copy is not the creator: its parent's entry stays.
    if (sharedMemory.isCreator()) {
        entrysegment::withdraw(sharedMemory.getPointer());
    }
}

LockedFile Endpoint::PosixImpl::createLockedFile() {
    // A dead publisher's segment would be in the way of the new one.
    return lockEntryFile([this] {
        if (SharedMemory leftover = findSharedMemory(entryName(), trusteeName());
            leftover.isAttached()) {
            leftover.markForDeletion();
        }
    });
}

SharedMemory Endpoint::PosixImpl::createSharedMemory(const DataPair& data) const {
    const std::size_t size = entrysegment::sizeFor(getLengthFromName(entryName()));
    SharedMemory segment = SharedMemory::create(entryName(), size, trusteeName(), implementation);
    if (!segment.isAttached()) {
        throw DuplicateEndpointError(
            "A synonym endpoint was found while trying to setup the shared memory");
    }
    entrysegment::publish(segment.getPointer(), data);
    return segment;
}

bool Endpoint::PosixImpl::staleEndpointFoundAndCleanedUp(const std::string& name,
                                                         const std::string& trustee) {
    AbandonedFile file(name, LF_PARENT_PATH, trustee);
    if (file.finding() == AbandonedFile::Finding::abandoned) {
        if (SharedMemory segment = findSharedMemory(name, trustee); segment.isAttached()) {
            segment.markForDeletion();
        }
        file.remove();
    }
    return file.finding() != AbandonedFile::Finding::inUse;
}

Endpoint::DataPair Endpoint::PosixImpl::getDataPair(const std::string& name,
                                                    const std::string& trustee) {
    if (!hasKnownVersion(name)) {
        return {};
    }
    const SharedMemory segment = findSharedMemory(name, trustee);
    if (!segment.isAttached()) {
        // Not built yet, or what is left of a dead publisher.
        if (isPublisherGone(name)) {
            staleEndpointFoundAndCleanedUp(name, trustee);
        }
        return {};
    }
    if (staleEndpointFoundAndCleanedUp(name, trustee)) {
        return {};
    }
    return entrysegment::read(segment.getPointer(), getLengthFromName(name));
}

SharedMemory Endpoint::PosixImpl::findSharedMemory(const std::string& name,
                                                   const std::string& trustee) {
    const std::size_t size = entrysegment::sizeFor(getLengthFromName(name));
    return SharedMemory::find(name, size, trustee, implementation);
}

} // namespace agent::spf::endpointregistry
