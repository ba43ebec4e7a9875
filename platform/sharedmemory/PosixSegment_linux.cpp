#include "sharedmemory/PosixSegment.h"

#include "foundation/os/AtomicFile.h"
#include "foundation/os/FileBytes.h"
#include "foundation/os/FileDescriptor.h"
#include "foundation/os/FileIdentity.h"
#include "foundation/os/Mapping.h"
#include "foundation/os/RetryOnInterrupt.h"
#include "sharedmemory/Failure.h"
#include "sharedmemory/SegmentPath.h"

#include <algorithm>
#include <cerrno>
#include <fcntl.h>
#include <limits>
#include <optional>
#include <unistd.h>

namespace agent::spf::sharedmemory {

namespace {

namespace os = foundation::os;

class PosixSegment : public SharedMemory::Segment {
public:
    /// One that is being made gets its identity when it has its name.
    PosixSegment(std::string trustee, std::string path, std::optional<os::FileIdentity> identity,
                 std::size_t ownSize, os::Mapping mapping)
        : Segment(std::move(trustee))
        , path(std::move(path))
        , identity(identity)
        , ownSize(ownSize)
        , mapping(std::move(mapping)) {}

    void* address() const override {
        if (!mapping) {
            const os::FileDescriptor file = open();
            mapping = file ? os::Mapping(file.get(), ownSize) : os::Mapping();
            if (!mapping) {
                fail("cannot map the segment", path, errno);
            }
        }
        return mapping.get();
    }

    void identify(const std::optional<os::FileIdentity>& made) noexcept { identity = made; }

    std::size_t size() const noexcept override { return ownSize; }

    bool isStillNamed() const noexcept override { return os::identityAt(path) == identity; }

    void remove() noexcept override {
        if (writeLastBytes()) {
            ::unlink(path.c_str());
        }
    }

private:
    /// Whether the name still stands for the segment.
    bool writeLastBytes() const noexcept {
        const std::string& bytes = lastBytes();
        // Of a segment that was found, perhaps less than all of it is mapped.
        if (bytes.size() <= mapping.size()) {
            std::copy(bytes.begin(), bytes.end(), static_cast<char*>(mapping.get()));
            return isStillNamed();
        }
        const os::FileDescriptor file = open();
        if (!file) {
            return isStillNamed(); // It goes also where there is no descriptor left.
        }
        os::retryOnInterrupt([&] { return ::pwrite(file.get(), bytes.data(), bytes.size(), 0); });
        return true;
    }

    /// The segment's file; empty, with errno set, when it is not what the path leads to. A segment
    /// that nobody has open may be told from a later one of its name by its identity all the same:
    /// the memory file system of /dev/shm numbers its files on and on.
    os::FileDescriptor open() const noexcept {
        os::FileDescriptor file(os::retryOnInterrupt(
            [&] { return ::open(path.c_str(), O_RDWR | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK); }));
        if (file && os::identityOf(file.get()) != identity) {
            file.reset();
            errno = ENOENT;
        }
        return file;
    }

    std::string path;
    std::optional<os::FileIdentity> identity;
    std::size_t ownSize;
    mutable os::Mapping mapping;
};

/// Gives a new file its size and its memory, all bytes zero; returns 0 or the errno value.
int reserve(int descriptor, std::size_t size) {
    constexpr auto largest = static_cast<std::size_t>(std::numeric_limits<off_t>::max());
    if (size > largest) {
        return EFBIG;
    }
    // Reserved and not only promised: ftruncate succeeds on a full file system, and the first
    // write to the mapping then kills the process.
    int error = 0;
    do {
        error = ::posix_fallocate(descriptor, 0, static_cast<off_t>(size));
    } while (error == EINTR);
    return error;
}

int setGroup(int descriptor, const SegmentPath& where) {
    constexpr auto sameUser = static_cast<uid_t>(-1);
    return where.group && ::fchown(descriptor, sameUser, *where.group) != 0 ? errno : 0;
}

/// Makes a segment's file, all of it before it can be found, so that nothing can fail afterwards.
/// `initialize` returns what the segment of the new file is to be, or null with errno set.
template<typename Initialize>
std::unique_ptr<SharedMemory::Segment> make(const SegmentPath& where, Initialize initialize) {
    std::unique_ptr<PosixSegment> segment;
    const os::AtomicFile file =
        os::createFileAtomically(where.path, where.mode(), [&](int descriptor) {
            // What an earlier attempt has reserved is not there for this one.
            segment.reset();
            if (const int error = setGroup(descriptor, where); error != 0) {
                return error;
            }
            segment = initialize(descriptor);
            return segment ? 0 : errno;
        });
    if (file.error != 0) {
        // Whatever kept this one from being made, one that exists is what there is to tell.
        const SegmentPath::ExistingFile existing = where.openExisting(O_RDWR);
        const bool hasGone = file.error == EEXIST && !existing.isTaken;
        if (!existing.isTrusted() && !hasGone) {
            fail("cannot make the segment", where.path, file.error);
        }
        return nullptr;
    }
    segment->identify(file.identity);
    segment->becomeCreator();
    return segment;
}

} // namespace

std::unique_ptr<SharedMemory::Segment> createPosixSegment(const std::string& name, std::size_t size,
                                                          const os::Group& trustee) {
    const SegmentPath where(name, trustee);
    const std::string& trailer = where.segmentName.trailer;
    return make(where, [&](int descriptor) -> std::unique_ptr<PosixSegment> {
        constexpr std::size_t largest = std::numeric_limits<std::size_t>::max();
        int error =
            size > largest - trailer.size() ? EFBIG : reserve(descriptor, size + trailer.size());
        error = error != 0 ? error : os::writeAll(descriptor, trailer, size);
        if (error != 0) {
            errno = error;
            return nullptr;
        }
        os::Mapping mapping(descriptor, size);
        if (!mapping) {
            return nullptr;
        }
        return std::make_unique<PosixSegment>(trustee.name(), where.path, std::nullopt, size,
                                              std::move(mapping));
    });
}

std::unique_ptr<SharedMemory::Segment> createFilledPosixSegment(const std::string& name,
                                                                std::string_view contents,
                                                                const os::Group& trustee) {
    const SegmentPath where(name, trustee);
    const std::string bytes = std::string(contents) + where.segmentName.trailer;
    return make(where, [&](int descriptor) -> std::unique_ptr<PosixSegment> {
        // Writing reserves the memory: a file system that is full refuses it.
        if (const int error = os::writeAll(descriptor, bytes, 0); error != 0) {
            errno = error;
            return nullptr;
        }
        return std::make_unique<PosixSegment>(trustee.name(), where.path, std::nullopt,
                                              contents.size(), os::Mapping());
    });
}

SegmentLookup findPosixSegment(const std::string& name, std::size_t size,
                               const os::Group& trustee) {
    const SegmentPath where(name, trustee);
    const SegmentPath::ExistingFile file = where.openExisting(O_RDWR);
    if (!file.isTrusted()) {
        return {nullptr, file.isTaken};
    }
    const std::size_t available = where.callersSize(file);
    if (available < size) {
        return {nullptr, true};
    }
    os::Mapping mapping(file.descriptor.get(), size);
    if (!mapping) {
        fail("cannot map the segment", where.path, errno);
    }
    return {std::make_unique<PosixSegment>(trustee.name(), where.path,
                                           os::FileIdentity(file.status), available,
                                           std::move(mapping)),
            true};
}

std::optional<std::string> readPosixSegment(const std::string& name, std::size_t size,
                                            const os::Group& trustee) {
    const SegmentPath where(name, trustee);
    const SegmentPath::ExistingFile file = where.openExisting(O_RDONLY);
    if (!file.isTrusted() || where.callersSize(file) < size) {
        return std::nullopt;
    }
    auto bytes = os::readFirst(file.descriptor.get(), size);
    // Where there are fewer, its owner has cut it short meanwhile.
    if (!bytes && errno != 0) {
        fail("cannot read the segment", where.path, errno);
    }
    return bytes;
}

} // namespace agent::spf::sharedmemory
