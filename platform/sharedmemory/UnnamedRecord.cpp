#include "sharedmemory/UnnamedRecord.h"

#include "foundation/os/DirectoryStream.h"
#include "foundation/os/Renaming.h"
#include "foundation/os/RetryFor.h"
#include "foundation/os/RetryOnInterrupt.h"
#include "sharedmemory/Failure.h"
#include "sharedmemory/SegmentTrailer.h"
#include "sharedmemory/SysVKernel.h"

#include <boost/algorithm/hex.hpp>
#include <cerrno>
#include <fcntl.h>
#include <iterator>
#include <string_view>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>
#include <utility>

namespace agent::spf::sharedmemory {

namespace os = foundation::os;

namespace {

constexpr std::string_view hiddenPrefix = ".unnamed-";
constexpr uid_t root = 0;

bool tryLock(int descriptor) noexcept {
    return os::retryOnInterrupt([&] { return ::flock(descriptor, LOCK_EX | LOCK_NB); }) == 0;
}

void write(int descriptor, const SegmentRecord& record, const std::string& name) {
    const SegmentRecord::Bytes bytes = record.bytes();
    const ssize_t count =
        os::retryOnInterrupt([&] { return ::pwrite(descriptor, bytes.data(), bytes.size(), 0); });
    if (count != static_cast<ssize_t>(bytes.size())) {
        fail("cannot write the record", name, count == -1 ? errno : ENOSPC);
    }
}

/// A new file under a name that is free; empty when somebody took it for a dead maker's before it
/// was locked.
os::FileDescriptor createLocked(const os::FilePlace& place) {
    os::FileDescriptor file(os::retryOnInterrupt([&] {
        return ::openat(place.folder, place.name.c_str(),
                        O_RDWR | O_CREAT | O_EXCL | O_CLOEXEC | O_NOFOLLOW, S_IRUSR | S_IWUSR);
    }));
    if (!file) {
        fail("cannot make the record", place.name, errno);
    }
    if (!tryLock(file.get())) {
        file.reset();
    }
    return file;
}

/// Gives a new record its group and mode, whatever the umask is.
void initialize(int descriptor, const RecordDirectory& directory, const std::string& name) {
    constexpr auto sameUser = static_cast<uid_t>(-1);
    const auto group = directory.group();
    if ((group && ::fchown(descriptor, sameUser, *group) != 0) ||
        ::fchmod(descriptor, directory.recordMode()) != 0) {
        fail("cannot make the record", name, errno);
    }
}

/// Removes what a maker that was killed made before it could write which segment that is.
void removeSegmentsMadeBy(pid_t maker) {
    sysv::forEachReadable([&](int id, const sysv::Status& status) {
        if (!status.hasKey && status.creator == ::geteuid() && status.mode == modeWhileMade &&
            status.maker == maker && status.attachments == 0) {
            sysv::removeSegment(id);
        }
    });
}

/// Whether a segment is the one that a record was written for. The number may be anybody's by now.
bool isSegmentOf(const SegmentRecord& record) {
    const auto status = sysv::statusOf(record.id);
    if (!status || status->size < trailer::size) {
        return false;
    }
    const sysv::Attachment attachment(record.id);
    return attachment && trailer::belongsTo(attachment.get() + status->size, record.token);
}

/// Whether there is nothing left that the record could lead to.
bool removeSegmentOf(const SegmentRecord& record) {
    if (!record.namesSegment()) {
        removeSegmentsMadeBy(record.maker);
        return true;
    }
    return !isSegmentOf(record) || sysv::removeSegment(record.id) || sysv::saysGone(errno);
}

void removeIfStale(const os::FilePlace& place) {
    const RecordFile file = openRecord(place);
    const bool isOwn = file.status.st_uid == ::geteuid() || ::geteuid() == root;
    // Its maker may have given it its name before it was locked here.
    if (file.descriptor && isOwn && S_ISREG(file.status.st_mode) &&
        tryLock(file.descriptor.get()) && os::identityAt(place) == file.identity() &&
        (!file.record || removeSegmentOf(*file.record))) {
        ::unlinkat(place.folder, place.name.c_str(), 0);
    }
}

} // namespace

std::string UnnamedRecord::hiddenName(const SegmentToken& token) {
    std::string name(hiddenPrefix);
    boost::algorithm::hex_lower(token.begin(), token.end(), std::back_inserter(name));
    return name;
}

UnnamedRecord::UnnamedRecord(os::FilePlace hidden, os::FileDescriptor locked) noexcept
    : hidden(std::move(hidden))
    , file(std::move(locked)) {
}

UnnamedRecord UnnamedRecord::create(const RecordDirectory& directory) {
    for (;;) {
        const SegmentToken token = makeSegmentToken();
        os::FilePlace hidden = directory.placeOf(hiddenName(token));
        os::FileDescriptor file = createLocked(hidden);
        if (!file) {
            continue;
        }
        UnnamedRecord made(std::move(hidden), std::move(file));
        made.record.maker = ::getpid();
        made.record.token = token;
        initialize(made.file.get(), directory, made.hidden.name);
        write(made.file.get(), made.record, made.hidden.name);
        return made;
    }
}

std::optional<UnnamedRecord> UnnamedRecord::takeName(const os::FilePlace& name,
                                                     const os::FileIdentity& identity,
                                                     std::string hiddenName,
                                                     std::chrono::milliseconds timeout) noexcept {
    os::FileDescriptor file(os::retryOnInterrupt([&] {
        return ::openat(name.folder, name.name.c_str(),
                        O_RDONLY | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK);
    }));
    // Whoever takes a record's name away holds its lock, so it cannot come to be another one's
    // between the look and the renaming.
    if (!file || os::identityOf(file.get()) != identity ||
        !os::retryFor(timeout, [&] { return tryLock(file.get()); }) ||
        os::identityAt(name) != identity ||
        ::renameat(name.folder, name.name.c_str(), name.folder, hiddenName.c_str()) != 0) {
        return std::nullopt;
    }
    return UnnamedRecord({name.folder, std::move(hiddenName)}, std::move(file));
}

UnnamedRecord::~UnnamedRecord() {
    if (file) {
        ::unlinkat(hidden.folder, hidden.name.c_str(), 0);
    }
}

os::FileIdentity UnnamedRecord::identity() const {
    const auto found = os::identityOf(file.get());
    if (!found) {
        fail("cannot examine the record", hidden.name, errno);
    }
    return *found;
}

void UnnamedRecord::complete(int segment) {
    record.id = segment;
    write(file.get(), record, hidden.name);
}

int UnnamedRecord::giveName(const os::FilePlace& name) noexcept {
    const int error = os::renameWithoutReplacing(hidden, name);
    if (error == 0) {
        file.reset();
    }
    return error;
}

void UnnamedRecord::removeAllStale(const RecordDirectory& directory) {
    os::DirectoryStream names(directory.placeOf("."));
    if (!names) {
        fail("cannot read the directory of segments", {}, errno);
    }
    while (const char* name = names.next()) {
        if (std::string_view(name).starts_with(hiddenPrefix)) {
            removeIfStale(directory.placeOf(name));
        }
    }
}

} // namespace agent::spf::sharedmemory
