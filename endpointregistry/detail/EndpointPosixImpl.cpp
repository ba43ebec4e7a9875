#include "endpointregistry/detail/EndpointPosixImpl.h"

#include "endpointregistry/EntryName.h"
#include "endpointregistry/Loggers.h"
#include "endpointregistry/detail/AbandonedFile.h"
#include "endpointregistry/detail/EntrySegment.h"

#include <cerrno>
#include <stdexcept>
#include <unistd.h>

namespace agent::spf::endpointregistry {

namespace {

using foundation::log::severity;
using sharedmemory::SharedMemory;

constexpr auto implementation = SharedMemory::ImplementationSpecifications::Posix;

bool processIsGone(pid_t process) {
    return ::getpgid(process) == -1;
}

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
    LockedFile file = LockedFile::tryLock(entryName(), LF_PARENT_PATH, trusteeName());
    if (file.isLocked()) {
        // New, or left by a dead publisher of this very name: an earlier program of this process,
        // or one whose process id was given out again. Its segment is in the way then.
        file.markForDeletion();
        if (SharedMemory leftover = findSharedMemory(entryName(), trusteeName());
            leftover.isAttached()) {
            leftover.markForDeletion();
        }
        return file;
    }
    // The holder may have gone meanwhile.
    file = LockedFile::createAndTryLock(entryName(), LF_PARENT_PATH, trusteeName());
    if (file.isLocked()) {
        return file;
    }
    const int error = file.getLockError();
    const bool isTaken = error == EEXIST || error == EWOULDBLOCK ||
                         LockedFile::exists(entryName(), LF_PARENT_PATH, trusteeName());
    if (!isTaken) {
        getLogger().log(
            severity::error, "Endpoint::PosixImpl::createLockedFile(): Failed to create file: <",
            LockedFile::getParentPath(LF_PARENT_PATH, trusteeName(), false) + entryName(),
            ">. (Error ", error, ")");
        throw std::runtime_error("System Error: File system inconsistency");
    }
    throw DuplicateEndpointError(
        "A synonym endpoint was found while trying to create the locked file");
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
    if (getVersionFromName(name) != 0) {
        return {};
    }
    // A dead process is noticed before its segment is touched. That some process answers proves
    // nothing, since ids are given out again: the lock decides below.
    const auto publisher = static_cast<pid_t>(getPidFromName(name));
    if (publisher != ::getpid() && processIsGone(publisher) &&
        staleEndpointFoundAndCleanedUp(name, trustee)) {
        return {};
    }
    const SharedMemory segment = findSharedMemory(name, trustee);
    if (!segment.isAttached() || staleEndpointFoundAndCleanedUp(name, trustee)) {
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
