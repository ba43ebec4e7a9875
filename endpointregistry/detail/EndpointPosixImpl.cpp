#include "endpointregistry/detail/EndpointPosixImpl.h"

#include "endpointregistry/EntryName.h"
#include "endpointregistry/detail/EntryFolder.h"
#include "endpointregistry/detail/EntrySegment.h"

#include <climits>
#include <functional>
#include <string_view>
#include <utility>

namespace agent::spf::endpointregistry {

namespace {

using sharedmemory::SharedMemory;

constexpr auto implementation = SharedMemory::ImplementationSpecifications::Posix;

/// Whether this is no path that leads out of the folder of entries.
bool canBeFileName(std::string_view name) {
    return name.size() <= NAME_MAX && name.find('/') == std::string_view::npos;
}

} // namespace

Endpoint::PosixImpl::PosixImpl(const DataPair& data, const std::string& groupTag,
                               const std::string& selectedKey, const std::string& trustee)
    : PosixImpl(data, groupTag, selectedKey, EntryFolder(trustee)) {
}

Endpoint::PosixImpl::PosixImpl(const DataPair& data, const std::string& groupTag,
                               const std::string& selectedKey, const EntryFolder& folder)
    : Impl(data, groupTag, selectedKey, folder.trustee().name())
    , lockedFile(createLockedFile(folder))
    , sharedMemory(replaceSharedMemory(data, folder)) {
}

LockedFile Endpoint::PosixImpl::createLockedFile() {
    return createLockedFile(EntryFolder(trusteeName()));
}

LockedFile Endpoint::PosixImpl::createLockedFile(const EntryFolder& folder) const {
    constexpr std::chrono::seconds timeout{1};
    const auto removeData = [&] {
        removeTraces(entryName(), folder);
        return true;
    };
    return lockEntryFile(folder, removeData, timeout);
}

SharedMemory Endpoint::PosixImpl::createSharedMemory(const DataPair& data) const {
    SharedMemory segment = SharedMemory::createFilled(entryName(), entrysegment::contentsOf(data),
                                                      trusteeName(), implementation);
    if (!segment.isAttached()) {
        throw DuplicateEndpointError(
            "A synonym endpoint was found while trying to setup the shared memory");
    }
    segment.overwriteAtRemoval(entrysegment::notReady);
    return segment;
}

SharedMemory Endpoint::PosixImpl::replaceSharedMemory(const DataPair& data,
                                                      const EntryFolder& folder) const {
    try {
        return createSharedMemory(data);
    } catch (const DuplicateEndpointError&) {
        // Looked for only when it is in the way, which it is next to never.
        removeTraces(entryName(), folder);
        return createSharedMemory(data);
    }
}

void Endpoint::PosixImpl::leaveHint(const EntryFolder& folder, std::string_view tagPrefix,
                                    std::string_view keyPart) noexcept {
    try {
        hint = PublishedHint(EntryHint(folder.privateBase(), tagPrefix, keyPart), entryName());
    } catch (...) { // NOLINT(bugprone-empty-catch): then there is none
    }
}

void Endpoint::PosixImpl::removeTraces(const std::string& name, const EntryFolder& folder) {
    if (folder.trustee().isNone()) {
        EntryHint::removeThatOf(name, folder.privateBase());
    }
    SharedMemory segment = findSharedMemory(name, folder.trustee().name());
    if (segment.isAttached()) {
        segment.markForDeletion();
    }
}

bool Endpoint::PosixImpl::staleEndpointFoundAndCleanedUp(const std::string& name,
                                                         const EntryFolder& folder) {
    return folder.clearIfStale(name, [&] {
        removeTraces(name, folder);
        return true;
    });
}

Endpoint::DataPair Endpoint::PosixImpl::getDataPair(const std::string& name,
                                                    const EntryFolder& folder) {
    if (!hasKnownVersion(name)) {
        return {};
    }
    const unsigned long length = getLengthFromName(name);
    // Copied, since to map the segment for one reading costs more than all the rest of it.
    const auto copy = SharedMemory::read(name, entrysegment::sizeFor(length),
                                         folder.trustee().name(), implementation);
    if (!copy) {
        // Not built yet, or what is left of a dead publisher.
        if (isPublisherGone(name)) {
            staleEndpointFoundAndCleanedUp(name, folder);
        }
        return {};
    }
    if (staleEndpointFoundAndCleanedUp(name, folder)) {
        return {};
    }
    return entrysegment::read(*copy, length);
}

std::optional<Endpoint::DataPair> Endpoint::PosixImpl::findHinted(const EntryHint& hint,
                                                                  const NameTest& isWanted,
                                                                  const EntryFolder& folder) {
    const std::optional<std::string> name = hint.read();
    if (!name) {
        return std::nullopt;
    }
    if (canBeFileName(*name) && isWanted(*name)) {
        if (DataPair data = getDataPair(*name, folder); isReadable(data)) {
            return data;
        }
    }
    // By now it may be that of somebody who has just published the key.
    hint.removeIfItSays(*name);
    return std::nullopt;
}

std::optional<Endpoint::DataPair> Endpoint::PosixImpl::findDataPair(const NameTest& isWanted,
                                                                    const EntryFolder& folder) {
    std::optional<DataPair> found;
    const auto isTheOne = [&](std::string_view name) {
        if (isWanted(name)) {
            if (DataPair data = getDataPair(std::string(name), folder); isReadable(data)) {
                found = std::move(data);
            }
        }
        return found.has_value();
    };
    folder.anyName(std::ref(isTheOne));
    return found;
}

SharedMemory Endpoint::PosixImpl::findSharedMemory(const std::string& name,
                                                   const std::string& trustee) {
    const std::size_t size = entrysegment::sizeFor(getLengthFromName(name));
    return SharedMemory::find(name, size, trustee, implementation);
}

} // namespace agent::spf::endpointregistry
