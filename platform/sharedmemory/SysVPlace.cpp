#include "sharedmemory/SysVPlace.h"

#include "foundation/os/Process.h"
#include "sharedmemory/Failure.h"
#include "sharedmemory/SysVProof.h"

#include <cerrno>
#include <ctime>
#include <unistd.h>
#include <utility>

namespace agent::spf::sharedmemory {

namespace os = foundation::os;

bool makerLives(const sysv::Status& status) {
    // A maker attaches at once. One that has not for this long was killed, and its id is another
    // process's by now.
    constexpr std::time_t longEnough = 10;
    constexpr pid_t unknown = 0;
    const bool isAtIt = status.attachments > 0 || std::time(nullptr) - status.changed <= longEnough;
    return isAtIt && (status.maker == unknown || os::processLives(status.maker));
}

SysVPlace::SysVPlace(const std::string& name, const os::Group& trustee)
    : ownName(name)
    , trustee(trustee)
    , user(::geteuid())
    , ownGroup(groupOf(trustee))
    , ownIdentity(segmentIdentityOf(name, trustee.name(), user))
    , ownKeys(segmentKeysOf(ownIdentity)) {
}

mode_t SysVPlace::mode() const {
    return ownGroup ? modeForGroup : modeForUser;
}

/// The owner of a segment may set any group, so only the creator tells whom it comes from.
bool SysVPlace::trustsCreator(uid_t creator) const {
    if (!ownGroup) {
        return creator == user;
    }
    const auto isTrusted = trustee.trusts(creator);
    if (!isTrusted) {
        // "Not known" must not read as "no": a table would be made a second time.
        fail("cannot ask for the members of the trustee", ownName, errno);
    }
    return *isTrusted;
}

bool SysVPlace::isFinished(const sysv::Status& status) const {
    return status.mode == mode() && status.owner == status.creator &&
           (!ownGroup || status.group == *ownGroup);
}

SysVPlace::Finding SysVPlace::examine(key_t key) const {
    for (;;) {
        const auto id = sysv::findId(key);
        if (!id) {
            if (errno != ENOENT) {
                fail("cannot look for the segment", ownName, errno);
            }
            return {};
        }
        const auto status = sysv::statusOf(*id);
        if (!status) {
            if (sysv::saysGone(errno)) {
                continue;
            }
            fail("cannot examine the segment", ownName, errno);
        }
        Finding finding{Standing::foreign, *id, *status, {}, 0};
        const bool isBeingMade = status->mode == modeWhileMade;
        if ((!isBeingMade && !isFinished(*status)) || !trustsCreator(status->creator)) {
            return finding;
        }
        if (isBeingMade) {
            finding.standing = Standing::beingMade;
            return finding;
        }
        sysv::Attachment attachment(*id);
        if (!attachment) {
            if (sysv::saysGone(errno)) {
                continue;
            }
            if (errno == EACCES) {
                finding.standing = Standing::closed;
                return finding;
            }
            fail("cannot attach to the segment", ownName, errno);
        }
        const auto callers = sysvproof::callersSize(attachment.get(), status->size, ownIdentity);
        if (callers) {
            const bool isRemoved = sysvproof::isRemoved(attachment.get(), status->size);
            finding.standing = isRemoved ? Standing::removed : Standing::ours;
            finding.callersSize = *callers;
            finding.attachment = std::move(attachment);
        }
        return finding;
    }
}

} // namespace agent::spf::sharedmemory
