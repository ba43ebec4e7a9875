#include "sharedmemory/SysVSegment.h"

#include "sharedmemory/Failure.h"
#include "sharedmemory/SysVLeftovers.h"
#include "sharedmemory/SysVPlace.h"
#include "sharedmemory/SysVProof.h"

#include <algorithm>
#include <cerrno>
#include <limits>
#include <optional>
#include <sched.h>
#include <utility>

namespace agent::spf::sharedmemory {

namespace {

namespace os = foundation::os;
using Standing = SysVPlace::Standing;

class SysVSegment : public SharedMemory::Segment {
public:
    SysVSegment(std::string trustee, key_t key, int id, std::size_t wholeSize, std::size_t ownSize,
                sysv::Attachment attachment)
        : Segment(std::move(trustee))
        , key(key)
        , id(id)
        , wholeSize(wholeSize)
        , ownSize(ownSize)
        , attachment(std::move(attachment)) {}

    void* address() const noexcept override { return attachment.get(); }
    std::size_t size() const noexcept override { return ownSize; }

    bool isStillNamed() const noexcept override {
        return sysv::findId(key) == id && !sysvproof::isRemoved(attachment.get(), wholeSize);
    }

    void remove() noexcept override {
        std::copy(lastBytes().begin(), lastBytes().end(), attachment.get());
        // Another member's is its owner's to remove; from here on nobody finds it.
        if (!sysv::removeSegment(id)) {
            sysvproof::markRemoved(attachment.get(), wholeSize);
        }
    }

private:
    key_t key;
    int id;
    std::size_t wholeSize;
    std::size_t ownSize;
    sysv::Attachment attachment;
};

/// Owner of a segment that is being made; it goes unless it gets finished.
class Claim {
public:
    explicit Claim(int id)
        : id(id) {}
    Claim(const Claim&) = delete;
    Claim& operator=(const Claim&) = delete;
    ~Claim() {
        if (isOpen) {
            sysv::removeSegment(id);
        }
    }
    void finish() { isOpen = false; }

private:
    int id;
    bool isOpen = true;
};

/// What the keys of a place hold, for somebody who wants to make its segment.
struct Survey {
    bool isTaken = false;
    /// The first key that is free.
    std::optional<std::size_t> room;
};

/// Whether a segment that was being made a moment ago still is. It may have been finished just
/// before its maker ended.
bool isStillBeingMade(int id) {
    const auto now = sysv::statusOf(id);
    return now && now->mode == modeWhileMade;
}

/// Looks through all keys, waits for whoever is making the segment, and frees keys of what only
/// this user may remove.
Survey survey(const SysVPlace& place) {
    Survey result;
    for (std::size_t i = 0; i < segmentKeyCount;) {
        const SysVPlace::Finding found = place.examine(place.keys().at(i));
        const bool isOwn = found.status.creator == place.caller();
        if (found.standing == Standing::beingMade) {
            if (makerLives(found.status)) {
                ::sched_yield();
                continue;
            }
            if (!isStillBeingMade(found.id) || (isOwn && sysv::removeSegment(found.id))) {
                continue;
            }
        }
        if (found.standing == Standing::removed && isOwn && sysv::removeSegment(found.id)) {
            continue;
        }
        if (found.standing == Standing::closed) {
            fail("cannot attach to the segment there", place.name(), EACCES);
        }
        if (found.standing == Standing::ours) {
            return {true, {}};
        }
        if (found.standing == Standing::absent && !result.room) {
            result.room = i;
        }
        ++i;
    }
    return result;
}

/// Whether a claim on the key of index `own` may become the place's segment.
///
/// Keys become free at any time, so two makers may be at different ones. Each has made its claim
/// before it looks here, so at least one sees the other: the one at the later key gives way, the
/// one at the earlier key waits for what the other decides.
bool prevails(const SysVPlace& place, std::size_t own) {
    for (std::size_t i = 0; i < segmentKeyCount;) {
        if (i == own) {
            ++i;
            continue;
        }
        const SysVPlace::Finding found = place.examine(place.keys().at(i));
        if (found.standing == Standing::ours || found.standing == Standing::closed) {
            return false;
        }
        if (found.standing == Standing::beingMade && makerLives(found.status)) {
            if (i < own) {
                return false;
            }
            ::sched_yield();
            continue;
        }
        if (found.standing == Standing::beingMade && !isStillBeingMade(found.id)) {
            continue;
        }
        ++i;
    }
    return true;
}

/// Makes the segment under one key; null when somebody else came first, at least to the key.
std::unique_ptr<SysVSegment> attempt(const SysVPlace& place, std::size_t index, std::size_t size,
                                     const std::string& trustee, std::string_view contents) {
    const std::size_t wholeSize = size + sysvproof::sizeFor(place.identity());
    const key_t key = place.keys().at(index);
    const auto id = sysv::makeSegment(key, wholeSize, modeWhileMade);
    if (!id) {
        if (errno == EEXIST) {
            return nullptr;
        }
        fail("cannot make the segment", place.name(), errno);
    }
    Claim claim(*id);
    sysv::Attachment attachment(*id);
    if (!attachment) {
        if (!sysv::saysGone(errno)) {
            fail("cannot attach to the segment", place.name(), errno);
        }
        return nullptr; // Removed by somebody who took this process for dead.
    }
    sysvproof::write(attachment.get(), wholeSize, place.identity());
    std::copy(contents.begin(), contents.end(), attachment.get());
    auto segment =
        std::make_unique<SysVSegment>(trustee, key, *id, wholeSize, size, std::move(attachment));
    if (!prevails(place, index)) {
        return nullptr;
    }
    if (!sysv::changeSegment(*id, place.mode(), place.group())) {
        // Not judged by errno, which is EINVAL also for a group that this user namespace lacks.
        const int error = errno;
        if (segment->isStillNamed()) {
            fail("cannot finish the segment", place.name(), error);
        }
        return nullptr;
    }
    if (!segment->isStillNamed()) {
        return nullptr;
    }
    claim.finish();
    segment->becomeCreator();
    return segment;
}

std::unique_ptr<SharedMemory::Segment> make(const std::string& name, std::size_t size,
                                            const os::Group& trustee, std::string_view contents) {
    // Not at every look: nothing accumulates but by what is made.
    removeSysVLeftovers();
    const SysVPlace place(name, trustee);
    if (!place.admitsCaller()) {
        fail("cannot make a segment for others", name, EPERM);
    }
    constexpr std::size_t largest = std::numeric_limits<std::size_t>::max();
    if (size > largest - sysvproof::sizeFor(place.identity())) {
        fail("cannot make the segment", name, EFBIG);
    }
    for (;;) {
        const Survey found = survey(place);
        if (found.isTaken) {
            return nullptr;
        }
        if (!found.room) {
            fail("every key of the segment is taken", name, EEXIST);
        }
        if (auto segment = attempt(place, *found.room, size, trustee.name(), contents)) {
            return segment;
        }
    }
}

} // namespace

std::unique_ptr<SharedMemory::Segment> createSysVSegment(const std::string& name, std::size_t size,
                                                         const os::Group& trustee) {
    return make(name, size, trustee, {});
}

std::unique_ptr<SharedMemory::Segment> createFilledSysVSegment(const std::string& name,
                                                               std::string_view contents,
                                                               const os::Group& trustee) {
    return make(name, contents.size(), trustee, contents);
}

SegmentLookup findSysVSegment(const std::string& name, std::size_t size, const os::Group& trustee) {
    const SysVPlace place(name, trustee);
    for (const key_t key : place.keys()) {
        SysVPlace::Finding found = place.examine(key);
        if (found.standing == Standing::closed) {
            return {nullptr, true};
        }
        if (found.standing != Standing::ours) {
            continue;
        }
        if (found.callersSize < size) {
            return {nullptr, true};
        }
        return {std::make_unique<SysVSegment>(trustee.name(), key, found.id, found.status.size,
                                              found.callersSize, std::move(found.attachment)),
                true};
    }
    return {};
}

} // namespace agent::spf::sharedmemory
