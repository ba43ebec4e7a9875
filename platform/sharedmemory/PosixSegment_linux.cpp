#include "sharedmemory/PosixSegment.h"

#include "foundation/os/AppearingFile.h"
#include "foundation/os/FileDescriptor.h"
#include "foundation/os/FileIdentity.h"
#include "foundation/os/Mapping.h"
#include "foundation/os/RetryOnInterrupt.h"
#include "sharedmemory/Failure.h"
#include "sharedmemory/SegmentName.h"

#include <algorithm>
#include <cerrno>
#include <fcntl.h>
#include <limits>
#include <optional>
#include <sys/stat.h>
#include <unistd.h>

// The segments are the files of /dev/shm, as those of shm_open are on Linux. They are opened as
// files because shm_open cannot make one that has no name until it is complete.

namespace agent::spf::sharedmemory {

namespace {

namespace os = foundation::os;

/// One identity: where its segment is, and who may have made it.
struct Place {
    Place(const std::string& name, const os::Group& trustee)
        : user(::geteuid())
        , segmentName(segmentNameOf(name, trustee.name(), user))
        , path("/dev/shm/" + segmentName.platformName)
        , group(groupOf(trustee)) {}

    /// /dev/shm is open to all, so a file of this name may be anybody's. Owner and group cannot be
    /// forged: a file is given only to a group that its owner is a member of.
    bool trusts(const struct stat& status) const {
        // Every segment has its memory from the start. In one that has holes, reading takes memory,
        // without bound, and kills the process where there is none.
        constexpr blkcnt_t blockSize = 512;
        const bool isWhole = status.st_blocks >= (status.st_size + blockSize - 1) / blockSize;
        const bool isOurs = group ? status.st_gid == *group : status.st_uid == user;
        return S_ISREG(status.st_mode) && isWhole && isOurs &&
               (status.st_mode & (S_IRWXU | S_IRWXG | S_IRWXO)) == mode();
    }

    mode_t mode() const {
        constexpr mode_t userOnly = S_IRUSR | S_IWUSR;
        return group ? userOnly | S_IRGRP | S_IWGRP : userOnly;
    }

    uid_t user;
    SegmentName segmentName;
    std::string path;
    std::optional<gid_t> group;
};

class PosixSegment : public SharedMemory::Segment {
public:
    PosixSegment(std::string trustee, std::string path, os::FileIdentity identity,
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

    std::size_t size() const noexcept override { return ownSize; }

    void overwrite(std::size_t offset, std::string_view bytes) noexcept override {
        // Of a segment that was found, perhaps less than all of it is mapped.
        if (offset + bytes.size() <= mapping.size()) {
            std::copy(bytes.begin(), bytes.end(), static_cast<char*>(mapping.get()) + offset);
        } else if (const os::FileDescriptor file = open()) {
            os::retryOnInterrupt([&] {
                return ::pwrite(file.get(), bytes.data(), bytes.size(), static_cast<off_t>(offset));
            });
        }
    }

    bool isStillNamed() const noexcept override { return os::identityAt(path) == identity; }

    void remove() noexcept override {
        if (isStillNamed()) {
            ::unlink(path.c_str());
        }
    }

private:
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
    os::FileIdentity identity;
    std::size_t ownSize;
    mutable os::Mapping mapping;
};

/// An existing file under a segment's name.
struct ExistingFile {
    os::FileDescriptor descriptor;
    struct stat status {};
    bool isTaken = false;

    bool isTrusted() const { return static_cast<bool>(descriptor); }
};

/// How many bytes of a trusted file are the caller's.
std::size_t callersSize(const ExistingFile& file, const Place& place) {
    return static_cast<std::size_t>(file.status.st_size) - place.segmentName.proof.size();
}

bool carriesProof(const ExistingFile& file, const std::string& proof) {
    const auto proofSize = static_cast<off_t>(proof.size());
    if (proof.empty() || file.status.st_size < proofSize) {
        return proof.empty();
    }
    std::string there(proof.size(), '\0');
    const ssize_t count = os::retryOnInterrupt([&] {
        return ::pread(file.descriptor.get(), there.data(), there.size(),
                       file.status.st_size - proofSize);
    });
    return count == static_cast<ssize_t>(proof.size()) && there == proof;
}

ExistingFile openExisting(const Place& place, int access) {
    ExistingFile file;
    // Not blocking, not followed: the name may have been given to a pipe or a link on purpose.
    file.descriptor = os::FileDescriptor(os::retryOnInterrupt(
        [&] { return ::open(place.path.c_str(), access | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK); }));
    if (!file.descriptor) {
        if (errno == EMFILE || errno == ENFILE || errno == ENOMEM) {
            fail("cannot open the segment", place.path, errno);
        }
        // A neighbour has many ways to make a file that cannot be opened.
        file.isTaken = errno != ENOENT;
        return file;
    }
    file.isTaken = true;
    if (::fstat(file.descriptor.get(), &file.status) != 0) {
        fail("cannot examine the segment", place.path, errno);
    }
    if (!place.trusts(file.status) || !carriesProof(file, place.segmentName.proof)) {
        file.descriptor.reset();
    }
    return file;
}

/// Writes all the bytes; returns 0 or the errno value.
int writeAll(int descriptor, std::string_view bytes, std::size_t offset) {
    while (!bytes.empty()) {
        const ssize_t count = os::retryOnInterrupt([&] {
            return ::pwrite(descriptor, bytes.data(), bytes.size(), static_cast<off_t>(offset));
        });
        if (count == -1) {
            return errno;
        }
        bytes.remove_prefix(static_cast<std::size_t>(count));
        offset += static_cast<std::size_t>(count);
    }
    return 0;
}

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

int setGroup(int descriptor, const Place& place) {
    constexpr auto sameUser = static_cast<uid_t>(-1);
    return place.group && ::fchown(descriptor, sameUser, *place.group) != 0 ? errno : 0;
}

/// Makes a segment's file, all of it before it can be found, so that nothing can fail afterwards.
/// `furnish` returns what the segment of the new file is to be, or null with errno set.
template<typename Furnish>
std::unique_ptr<SharedMemory::Segment> make(const Place& place, Furnish furnish) {
    std::unique_ptr<PosixSegment> segment;
    const os::AppearingFile file =
        os::createAppearing(place.path, place.mode(), [&](int descriptor) {
            // What an earlier attempt has reserved is not there for this one.
            segment.reset();
            if (const int error = setGroup(descriptor, place); error != 0) {
                return error;
            }
            segment = furnish(descriptor);
            return segment ? 0 : errno;
        });
    if (file.error != 0) {
        // Whatever kept this one from being made, one that exists is what there is to tell.
        const ExistingFile existing = openExisting(place, O_RDWR);
        const bool hasGone = file.error == EEXIST && !existing.isTaken;
        if (!existing.isTrusted() && !hasGone) {
            fail("cannot make the segment", place.path, file.error);
        }
        return nullptr;
    }
    segment->becomeCreator();
    return segment;
}

} // namespace

std::unique_ptr<SharedMemory::Segment> createPosixSegment(const std::string& name, std::size_t size,
                                                          const os::Group& trustee) {
    const Place place(name, trustee);
    const std::string& proof = place.segmentName.proof;
    return make(place, [&](int descriptor) -> std::unique_ptr<PosixSegment> {
        constexpr std::size_t largest = std::numeric_limits<std::size_t>::max();
        int error =
            size > largest - proof.size() ? EFBIG : reserve(descriptor, size + proof.size());
        error = error != 0 ? error : writeAll(descriptor, proof, size);
        if (error != 0) {
            errno = error;
            return nullptr;
        }
        const auto identity = os::identityOf(descriptor);
        os::Mapping mapping(descriptor, size);
        if (!identity || !mapping) {
            return nullptr;
        }
        return std::make_unique<PosixSegment>(trustee.name(), place.path, *identity, size,
                                              std::move(mapping));
    });
}

std::unique_ptr<SharedMemory::Segment> createFilledPosixSegment(const std::string& name,
                                                                std::string_view contents,
                                                                const os::Group& trustee) {
    const Place place(name, trustee);
    const std::string bytes = std::string(contents) + place.segmentName.proof;
    return make(place, [&](int descriptor) -> std::unique_ptr<PosixSegment> {
        // Writing reserves the memory: a file system that is full refuses it.
        if (const int error = writeAll(descriptor, bytes, 0); error != 0) {
            errno = error;
            return nullptr;
        }
        const auto identity = os::identityOf(descriptor);
        if (!identity) {
            return nullptr;
        }
        return std::make_unique<PosixSegment>(trustee.name(), place.path, *identity,
                                              contents.size(), os::Mapping());
    });
}

SegmentLookup findPosixSegment(const std::string& name, std::size_t size,
                               const os::Group& trustee) {
    const Place place(name, trustee);
    const ExistingFile file = openExisting(place, O_RDWR);
    if (!file.isTrusted()) {
        return {nullptr, file.isTaken};
    }
    const std::size_t available = callersSize(file, place);
    if (available < size) {
        return {nullptr, true};
    }
    os::Mapping mapping(file.descriptor.get(), size);
    if (!mapping) {
        fail("cannot map the segment", place.path, errno);
    }
    return {std::make_unique<PosixSegment>(trustee.name(), place.path,
                                           os::FileIdentity(file.status), available,
                                           std::move(mapping)),
            true};
}

std::optional<std::string> readPosixSegment(const std::string& name, std::size_t size,
                                            const os::Group& trustee) {
    const Place place(name, trustee);
    const ExistingFile file = openExisting(place, O_RDONLY);
    if (!file.isTrusted() || callersSize(file, place) < size) {
        return std::nullopt;
    }
    std::string bytes(size, '\0');
    std::size_t filled = 0;
    while (filled < size) {
        const ssize_t count = os::retryOnInterrupt([&] {
            return ::pread(file.descriptor.get(), bytes.data() + filled, size - filled,
                           static_cast<off_t>(filled));
        });
        if (count == -1) {
            fail("cannot read the segment", place.path, errno);
        }
        if (count == 0) {
            return std::nullopt; // Its owner has cut it short meanwhile.
        }
        filled += static_cast<std::size_t>(count);
    }
    return bytes;
}

} // namespace agent::spf::sharedmemory
