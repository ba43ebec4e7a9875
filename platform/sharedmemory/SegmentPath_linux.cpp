#include "sharedmemory/SegmentPath.h"

#include "foundation/os/RetryOnInterrupt.h"
#include "sharedmemory/Failure.h"

#include <cerrno>
#include <fcntl.h>
#include <unistd.h>

// The segments are the files of /dev/shm, as those of shm_open are on Linux. They are opened as
// files because shm_open cannot make one that has no name until it is complete.

namespace agent::spf::sharedmemory {

namespace os = foundation::os;

SegmentPath::SegmentPath(const std::string& name, const os::Group& trustee)
    : user(::geteuid())
    , segmentName(segmentNameOf(name, trustee.name(), user))
    , path("/dev/shm/" + segmentName.platformName)
    , group(groupOf(trustee)) {
}

/// /dev/shm is open to all, so a file of this name may be anybody's. Owner and group cannot be
/// forged: a file is given only to a group that its owner is a member of.
bool SegmentPath::trusts(const struct stat& status) const {
    // Every segment has its memory from the start. In one that has holes, reading takes memory,
    // without bound, and kills the process where there is none.
    constexpr blkcnt_t blockSize = 512;
    const blkcnt_t neededBlocks =
        status.st_size / blockSize + (status.st_size % blockSize != 0 ? 1 : 0);
    const bool isWhole = status.st_blocks >= neededBlocks;
    const bool isOurs = group ? status.st_gid == *group : status.st_uid == user;
    return S_ISREG(status.st_mode) && isWhole && isOurs &&
           (status.st_mode & (S_IRWXU | S_IRWXG | S_IRWXO)) == mode();
}

mode_t SegmentPath::mode() const {
    constexpr mode_t userOnly = S_IRUSR | S_IWUSR;
    return group ? userOnly | S_IRGRP | S_IWGRP : userOnly;
}

bool SegmentPath::isProvenBy(const ExistingFile& file) const {
    const std::string& trailer = segmentName.trailer;
    const auto trailerSize = static_cast<off_t>(trailer.size());
    if (trailer.empty() || file.status.st_size < trailerSize) {
        return trailer.empty();
    }
    std::string there(trailer.size(), '\0');
    const ssize_t count = os::retryOnInterrupt([&] {
        return ::pread(file.descriptor.get(), there.data(), there.size(),
                       file.status.st_size - trailerSize);
    });
    return count == static_cast<ssize_t>(trailer.size()) && there == trailer;
}

SegmentPath::ExistingFile SegmentPath::openExisting(int access) const {
    ExistingFile file;
    // Not blocking, not followed: the name may have been given to a pipe or a link on purpose.
    file.descriptor = os::FileDescriptor(os::retryOnInterrupt(
        [&] { return ::open(path.c_str(), access | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK); }));
    if (!file.descriptor) {
        if (errno == EMFILE || errno == ENFILE || errno == ENOMEM) {
            fail("cannot open the segment", path, errno);
        }
        // A neighbour has many ways to make a file that cannot be opened.
        file.isTaken = errno != ENOENT;
        return file;
    }
    file.isTaken = true;
    if (::fstat(file.descriptor.get(), &file.status) != 0) {
        fail("cannot examine the segment", path, errno);
    }
    if (!trusts(file.status) || !isProvenBy(file)) {
        file.descriptor.reset();
    }
    return file;
}

} // namespace agent::spf::sharedmemory
