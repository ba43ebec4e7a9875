#include "sharedmemory/SysVLeftovers.h"

#include "sharedmemory/SysVKernel.h"
#include "sharedmemory/SysVPlace.h"
#include "sharedmemory/SysVProof.h"

namespace agent::spf::sharedmemory {

namespace {

constexpr mode_t sharedMode = 0660;

bool isAbandoned(const sysv::Status& status) {
    return status.mode == modeWhileMade && status.attachments == 0 && !makerLives(status);
}

} // namespace

void removeSysVLeftovers(uid_t user) {
    sysv::forEachReadable([user](int id, const sysv::Status& status) {
        const bool abandoned = isAbandoned(status);
        if (status.creator != user || !(abandoned || status.mode == sharedMode)) {
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
