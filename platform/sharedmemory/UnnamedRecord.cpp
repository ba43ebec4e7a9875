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

bool hasName(int descriptor) noexcept {
    struct stat status {};
    return ::fstat(descriptor, &status) == 0 && status.st_nlink > 0;
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
os::FileDescriptor createLocked(const os::PathAt& where) {
    os::FileDescriptor file(os::retryOnInterrupt([&] {
        return ::openat(where.folder, where.name.c_str(),
                        O_RDWR | O_CREAT | O_EXCL | O_CLOEXEC | O_NOFOLLOW, S_IRUSR | S_IWUSR);
    }));
    if (!file) {
        fail("cannot make the record", where.name, errno);
    }
    if (!tryLock(file.get())) {
        const int error = errno;
        ::unlinkat(where.folder, where.name.c_str(), 0);
        if (error != EWOULDBLOCK) {
            fail("cannot lock the record", where.name, error);
        }
        file.reset();
    } else if (!hasName(file.get())) {
        // Without it nobody would be told what a maker that is killed has made.
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

// Who may write to the directory can forge a record, but not whose file it is: no record leads to a
// segment of another user than its own, whatever root, who may remove all, is told by it.

/// Removes what a maker that was killed made before it could write which segment that is.
void removeSegmentsMadeBy(pid_t maker, uid_t owner) {
    sysv::forEachReadable([&](int id, const sysv::Status& status) {
        if (!status.hasKey && status.creator == owner && status.mode == modeWhileMade &&
            status.maker == maker && status.attachments == 0) {
            sysv::removeSegment(id);
        }
    });
}

/// Removes the segment that a record was written for. The number may be another one's by now, which
/// is left alone. False when it is not known which, or the system refuses.
bool removeSegmentOf(const SegmentRecord& record, uid_t owner) {
    const auto status = sysv::statusOf(record.id);
    if (!status) {
        // What is closed even to its owner is somebody else's by now.
        return sysv::saysGone(errno) || owner == ::geteuid();
    }
    if (status->hasKey || status->creator != owner || status->size < trailer::size) {
        return true;
    }
    const sysv::Attachment attachment(record.id);
    if (!attachment) {
        return sysv::saysGone(errno);
    }
    return !trailer::belongsTo(attachment.get() + status->size, record.token) ||
           sysv::removeSegment(record.id) || sysv::saysGone(errno);
}

/// Whether there is nothing left that the record could lead to.
bool removeWhatIsOf(const SegmentRecord& record, uid_t owner) {
    if (record.namesSegment()) {
        return removeSegmentOf(record, owner);
    }
    removeSegmentsMadeBy(record.maker, owner);
    return true;
}

/// Whether a note leads to nothing any more, so that everybody may remove it: its owner may never
/// come back.
bool leadsNowhere(const RecordFile& file) {
    return file.record && file.record->namesSegment() && !sysv::statusOf(file.record->id) &&
           sysv::saysGone(errno);
}

void removeIfStale(const os::PathAt& where) {
    RecordFile file = openRecord(where);
    const bool isOwn =
        file.status.st_uid == ::geteuid() || ::geteuid() == root || leadsNowhere(file);
    // Until it is locked here, its maker may give it its name, or write to it and be killed.
    if (file.descriptor && isOwn && S_ISREG(file.status.st_mode) &&
        tryLock(file.descriptor.get()) && os::identityAt(where) == file.identity() &&
        file.reread() && (!file.record || removeWhatIsOf(*file.record, file.status.st_uid))) {
        ::unlinkat(where.folder, where.name.c_str(), 0);
    }
}

} // namespace

std::string UnnamedRecord::hiddenName(const SegmentToken& token) {
    std::string name;
    name.reserve(hiddenPrefix.size() + 2 * token.size());
    name.append(hiddenPrefix);
    boost::algorithm::hex_lower(token.begin(), token.end(), std::back_inserter(name));
    return name;
}

UnnamedRecord::UnnamedRecord(os::PathAt hidden, os::FileDescriptor locked) noexcept
    : hidden(std::move(hidden))
    , file(std::move(locked)) {
}

UnnamedRecord UnnamedRecord::create(const RecordDirectory& directory) {
    for (;;) {
        const SegmentToken token = makeSegmentToken();
        os::PathAt hidden = directory.at(hiddenName(token));
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

std::optional<UnnamedRecord> UnnamedRecord::takeName(const os::PathAt& name, RecordFile file,
                                                     std::string hiddenName,
                                                     std::chrono::milliseconds timeout) noexcept {
    // Whoever takes a record's name away holds its lock, so it cannot come to be another one's
    // between the look and the renaming.
    if (!os::retryFor(timeout, [&] { return tryLock(file.descriptor.get()); }) ||
        os::identityAt(name) != file.identity() ||
        ::renameat(name.folder, name.name.c_str(), name.folder, hiddenName.c_str()) != 0) {
        return std::nullopt;
    }
    return UnnamedRecord({name.folder, std::move(hiddenName)}, std::move(file.descriptor));
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

int UnnamedRecord::giveName(const os::PathAt& name) noexcept {
    const int error = os::renameWithoutReplacing(hidden, name);
    if (error == 0) {
        letGo();
    }
    return error;
}

// Closing alone would leave it to a child that another thread has forked meanwhile.
void UnnamedRecord::letGo() noexcept {
    ::flock(file.get(), LOCK_UN);
    file.reset();
}

void UnnamedRecord::removeAllStale(const RecordDirectory& directory) {
    os::DirectoryStream names(directory.at("."));
    if (!names) {
        fail("cannot read the directory of segments", {}, errno);
    }
    while (const char* name = names.next()) {
        if (std::string_view(name).starts_with(hiddenPrefix)) {
            removeIfStale(directory.at(name));
        }
    }
}

} // namespace agent::spf::sharedmemory
