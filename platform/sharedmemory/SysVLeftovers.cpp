#include "sharedmemory/SysVLeftovers.h"

#include "sharedmemory/SysVKernel.h"
#include "sharedmemory/SysVPlace.h"
#include "sharedmemory/SysVProof.h"

#include <sys/ipc.h>
#include <unistd.h>

namespace agent::spf::sharedmemory {

namespace {

bool isAbandoned(const sysv::Status& status) {
    return status.mode == modeWhileMade && status.attachments == 0 && !makerLives(status);
}

} // namespace

void removeSysVLeftovers() {
    sysv::forEachReadable([user = ::geteuid()](int id, const sysv::Status& status) {
        const bool abandoned = isAbandoned(status);
        const bool isCandidate = abandoned || status.mode == modeForGroup;
        if (status.key == IPC_PRIVATE || status.creator != user || !isCandidate) {
            return;
        }
        const sysv::Attachment attachment(id);
        if (!attachment) {
            return;
        }
        const char* const bytes = attachment.get();
        const bool isOurs = sysvproof::isMarked(bytes, status.size);
        const bool isLeftover = abandoned ? isOurs || sysvproof::isBlank(bytes, status.size)
                                          : isOurs && sysvproof::isRemoved(bytes, status.size);
        // Its maker may have finished it just before it died.
        const auto now = isLeftover ? sysv::statusOf(id) : std::nullopt;
        if (now && now->mode == status.mode) {
            sysv::removeSegment(id);
        }
    });
}

} // namespace agent::spf::sharedmemory
