#include "sharedmemory/SysVSegments.h"

#include "foundation/os/Accounts.h"
#include "foundation/os/DirectoryStream.h"
#include "sharedmemory/Failure.h"
#include "sharedmemory/SegmentName.h"
#include "sharedmemory/SegmentTrailer.h"
#include "sharedmemory/SysVKernel.h"
#include "sharedmemory/SysVSegment.h"
#include "sharedmemory/UnnamedRecord.h"

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <limits>
#include <optional>
#include <string_view>
#include <unistd.h>
#include <utility>

namespace agent::spf::sharedmemory {

namespace os = foundation::os;

namespace {

/// Whether the kernel's segment is as those of this directory are.
bool isAsMade(const sysv::Status& status, const RecordDirectory& directory) {
    const auto group = directory.group();
    const bool isOurs = group ? status.group == *group : status.creator == directory.user();
    return isOurs && status.owner == status.creator && !status.hasKey && !status.isRemoved &&
           status.mode == directory.segmentMode() && status.size > trailer::size;
}

/// What a record leads to now.
struct NamedSegment {
    std::size_t wholeSize = 0;
    sysv::Attachment attachment;
};

/// What stands under a name.
struct Examined {
    RecordFile file;
    /// The segment that the record names; nothing where that is gone, or is another one or somebody
    /// else's by now, as after a reboot or in another IPC namespace.
    std::optional<NamedSegment> segment;
    /// There is one that this process cannot tell to be another's, since it is not in the group.
    bool isClosed = false;

    bool isFree() const { return file.error == ENOENT; }
    /// A file that is no record, or names nothing any more.
    bool isStale() const {
        return file.descriptor && S_ISREG(file.status.st_mode) && !segment && !isClosed;
    }
};

/// After a look that failed with errno set: whether the segment is one of the group's all the same.
/// Every member may look at those.
bool mayBeTheGroups(const RecordDirectory& directory) {
    return errno == EACCES && directory.group() && !os::isInGroup(*directory.group());
}

void findSegment(Examined& there, const RecordDirectory& directory) {
    const SegmentRecord& record = *there.file.record;
    const auto status = sysv::statusOf(record.id);
    if (!status) {
        there.isClosed = mayBeTheGroups(directory);
        return;
    }
    // Whoever has read a record knows its token, but a segment of theirs is not its maker's.
    if (!isAsMade(*status, directory) || status->creator != there.file.status.st_uid) {
        return;
    }
    NamedSegment segment{status->size, sysv::Attachment(record.id)};
    if (!segment.attachment) {
        if (!sysv::saysGone(errno) && errno != EACCES) {
            fail("cannot attach to the segment", {}, errno);
        }
        there.isClosed = mayBeTheGroups(directory);
    } else if (trailer::matches(segment.attachment.get() + segment.wholeSize, record.token)) {
        there.segment = std::move(segment);
    }
}

Examined examine(const os::PathAt& where, const RecordDirectory& directory) {
    Examined there{openRecord(where), {}};
    if (there.file.record) {
        findSegment(there, directory);
    }
    return there;
}

/// Takes the name of a stale record away, unless somebody else is at it for longer than the
/// timeout. What it may still lead to is its owner's to remove.
bool tryTakeStaleAway(const os::PathAt& where, RecordFile file, std::chrono::milliseconds timeout) {
    const SegmentToken token = file.record ? file.record->token : makeSegmentToken();
    auto unnamed =
        UnnamedRecord::takeName(where, std::move(file), UnnamedRecord::hiddenName(token), timeout);
    if (unnamed) {
        unnamed->leaveToOwner();
    }
    return unnamed.has_value();
}

/// Makes way for a new record.
void takeStaleAway(const os::PathAt& where, RecordFile file) {
    constexpr std::chrono::seconds timeout{2};
    const os::FileIdentity identity = file.identity();
    if (!tryTakeStaleAway(where, std::move(file), timeout) && os::identityAt(where) == identity) {
        fail("cannot replace the record", where.name, EBUSY);
    }
}

/// Owner of a segment that is being made; it goes unless it gets finished.
class NewSegment {
public:
    explicit NewSegment(int id)
        : id(id) {}
    NewSegment(const NewSegment&) = delete;
    NewSegment& operator=(const NewSegment&) = delete;
    ~NewSegment() {
        if (!isFinished) {
            sysv::removeSegment(id);
        }
    }
    void finish() { isFinished = true; }

private:
    int id;
    bool isFinished = false;
};

enum class Naming {
    done,
    /// Another segment has the name.
    taken,
    /// Somebody has taken this process for dead and removed the record.
    lost,
};

Naming giveName(UnnamedRecord& record, const RecordDirectory& directory, const std::string& name) {
    const os::PathAt where = directory.at(name);
    for (;;) {
        switch (const int error = record.giveName(where)) {
        case 0:
            return Naming::done;
        case ENOENT:
            return Naming::lost;
        case EEXIST:
            break;
        default:
            fail("cannot make the segment", name, error);
        }
        Examined there = examine(where, directory);
        if (there.segment) {
            return Naming::taken;
        }
        if (there.isStale()) {
            takeStaleAway(where, std::move(there.file));
            UnnamedRecord::removeAllStale(directory); // It may be this user's own.
        } else if (!there.isFree()) {
            fail("cannot make the segment: something else has its name", name,
                 there.isClosed ? EACCES : EEXIST);
        }
    }
}

/// After a step that failed with errno set: throws, unless a login manager or an administrator has
/// removed the segment meanwhile, so that it is worth another attempt.
void failUnlessGone(const std::string& what, const std::string& name, int id) {
    const int error = errno;
    // Not judged by errno, which is EINVAL also for a group that this user namespace lacks.
    const auto status = sysv::statusOf(id);
    if (status && !status->isRemoved) {
        fail(what, name, error);
    }
}

} // namespace

std::unique_ptr<SharedMemory::Segment> SysVSegments::create(const std::string& name,
                                                            std::size_t size) {
    return make(name, size, {});
}

std::unique_ptr<SharedMemory::Segment> SysVSegments::createFilled(const std::string& name,
                                                                  std::string_view contents) {
    return make(name, contents.size(), contents);
}

std::unique_ptr<SharedMemory::Segment> SysVSegments::make(const std::string& name, std::size_t size,
                                                          std::string_view contents) {
    if (size > std::numeric_limits<std::size_t>::max() - trailer::size) {
        fail("cannot make the segment", name, EFBIG);
    }
    for (;;) {
        if (!directory) {
            directory =
                std::make_shared<const RecordDirectory>(RecordDirectory::openOrCreate(trustee));
        }
        // Not at every look: nothing accumulates but by what is made.
        UnnamedRecord::removeAllStale(*directory);
        Attempt attempt = tryMake(recordNameOf(name), size, contents);
        if (attempt.isDecided) {
            return std::move(attempt.segment);
        }
        forgetDirectory();
    }
}

std::string SysVSegments::recordNameOf(const std::string& name) const {
    return segmentNameOf(name, trustee.name(), directory->user()).platformName;
}

std::vector<std::string> SysVSegments::namesWith(const std::string& prefix) const {
    std::vector<std::string> names;
    const std::string record = directory ? recordNameOf(prefix) : std::string();
    if (record.substr(0, prefix.size()) != prefix) {
        return names; // A record of this name would not tell it.
    }
    const std::string ending = record.substr(prefix.size());
    os::DirectoryStream entries(directory->at("."));
    while (const char* entry = entries ? entries.next() : nullptr) {
        const std::string_view found(entry);
        if (found.starts_with(prefix) && found.ends_with(ending) &&
            found.size() > prefix.size() + ending.size()) {
            names.emplace_back(found.substr(0, found.size() - ending.size()));
        }
    }
    return names;
}

void SysVSegments::removeStale(const std::string& name) {
    constexpr std::chrono::milliseconds aMoment{20};
    const os::PathAt where = directory->at(recordNameOf(name));
    Examined there = examine(where, *directory);
    if (there.isStale()) {
        tryTakeStaleAway(where, std::move(there.file), aMoment);
    }
}

SysVSegments::Attempt SysVSegments::tryMake(const std::string& recordName, std::size_t size,
                                            std::string_view contents) {
    const std::size_t wholeSize = size + trailer::size;
    UnnamedRecord record = UnnamedRecord::create(*directory);
    const auto id = sysv::makeSegment(wholeSize, modeWhileMade);
    if (!id) {
        const int error = errno;
        // Where no more can be made, whoever asks for one that there is need not know.
        if (examine(directory->at(recordName), *directory).segment) {
            return {true, nullptr};
        }
        fail("cannot make the segment", recordName, error);
    }
    NewSegment made(*id);
    sysv::Attachment attachment(*id);
    if (!attachment) {
        failUnlessGone("cannot attach to the segment", recordName, *id);
        return {};
    }
    std::copy(contents.begin(), contents.end(), attachment.get());
    trailer::write(attachment.get() + wholeSize, record.content().token);
    record.complete(*id);
    if (!sysv::changeSegment(*id, directory->segmentMode(), directory->group())) {
        failUnlessGone("cannot finish the segment", recordName, *id);
        return {};
    }
    auto segment =
        std::make_unique<SysVSegment>(trustee.name(), directory, recordName, record.identity(),
                                      record.content(), wholeSize, std::move(attachment));
    switch (giveName(record, *directory, recordName)) {
    case Naming::taken:
        return {true, nullptr};
    case Naming::lost:
        return {};
    case Naming::done:
        break;
    }
    if (!segment->isStillNamed()) {
        segment->remove();
        return {};
    }
    made.finish();
    segment->becomeCreator();
    return {true, std::move(segment)};
}

SegmentLookup SysVSegments::find(const std::string& name, std::size_t size) {
    if (!directory) {
        auto found = RecordDirectory::tryOpen(trustee);
        if (!found) {
            return {};
        }
        directory = std::make_shared<const RecordDirectory>(std::move(*found));
    }
    const std::string recordName = recordNameOf(name);
    Examined there = examine(directory->at(recordName), *directory);
    if (!there.segment) {
        return {nullptr, !there.isFree() && !there.isStale()};
    }
    if (there.segment->wholeSize - trailer::size < size) {
        return {nullptr, true};
    }
    return {std::make_unique<SysVSegment>(
                trustee.name(), directory, recordName, there.file.identity(), *there.file.record,
                there.segment->wholeSize, std::move(there.segment->attachment)),
            true};
}

} // namespace agent::spf::sharedmemory
