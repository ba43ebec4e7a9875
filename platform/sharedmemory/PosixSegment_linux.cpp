#include "sharedmemory/PosixSegment.h"

#include "foundation/os/AppearingFile.h"
#include "foundation/os/FileDescriptor.h"
#include "foundation/os/FileIdentity.h"
#include "foundation/os/Mapping.h"
#include "foundation/os/RetryOnInterrupt.h"
#include "sharedmemory/Failure.h"
#include "sharedmemory/SegmentName.h"

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

    void* address() const noexcept override { return mapping.get(); }
    std::size_t size() const noexcept override { return ownSize; }

    bool isStillNamed() const noexcept override { return os::identityAt(path) == identity; }

    void remove() noexcept override {
        if (isStillNamed()) {
            ::unlink(path.c_str());
        }
    }

private:
    std::string path;
    os::FileIdentity identity;
    std::size_t ownSize;
    os::Mapping mapping;
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

/// Gives a new file its size, its memory, its bytes and its group; returns 0 or the errno value.
int furnish(int descriptor, std::size_t size, const Place& place) {
    const std::string& proof = place.segmentName.proof;
    constexpr auto largest = static_cast<std::size_t>(std::numeric_limits<off_t>::max());
    if (size > largest - proof.size()) {
        return EFBIG;
    }
    // Reserved and not only promised: ftruncate succeeds on a full file system, and the first
    // write to the mapping then kills the process.
    int error = 0;
    do {
        error = ::posix_fallocate(descriptor, 0, static_cast<off_t>(size + proof.size()));
    } while (error == EINTR);
    if (error != 0) {
        return error;
    }
    if (!proof.empty()) {
        const ssize_t count =
            ::pwrite(descriptor, proof.data(), proof.size(), static_cast<off_t>(size));
        if (count != static_cast<ssize_t>(proof.size())) {
            return count == -1 ? errno : EIO;
        }
    }
    constexpr auto sameUser = static_cast<uid_t>(-1);
    return place.group && ::fchown(descriptor, sameUser, *place.group) != 0 ? errno : 0;
}

} // namespace

std::unique_ptr<SharedMemory::Segment> createPosixSegment(const std::string& name, std::size_t size,
                                                          const os::Group& trustee,
                                                          const SharedMemory::Fill& fill) {
    const Place place(name, trustee);
    std::unique_ptr<PosixSegment> segment;
    const os::AppearingFile file =
        os::createAppearing(place.path, place.mode(), [&](int descriptor) {
            // What an earlier attempt has reserved is not there for this one.
            segment.reset();
            if (const int error = furnish(descriptor, size, place); error != 0) {
                return error;
            }
            // All of it before the segment can be found, so that nothing can fail afterwards.
            const auto identity = os::identityOf(descriptor);
            os::Mapping mapping(descriptor, size);
            if (!identity || !mapping) {
                return errno;
            }
            if (fill) {
                fill(mapping.get());
            }
            segment = std::make_unique<PosixSegment>(trustee.name(), place.path, *identity, size,
                                                     std::move(mapping));
            return 0;
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
