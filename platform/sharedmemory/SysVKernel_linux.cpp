#include "sharedmemory/SysVKernel.h"

#include <cerrno>
#include <sys/ipc.h>
#include <sys/shm.h>
#include <utility>

namespace agent::spf::sharedmemory::sysv {

namespace {

constexpr mode_t permissionBits = 0777;

Status read(const shmid_ds& segment) {
    const ipc_perm& permissions = segment.shm_perm;
    return {permissions.cuid,
            permissions.uid,
            permissions.gid,
            permissions.mode & permissionBits,
            segment.shm_segsz,
            segment.shm_cpid,
            segment.shm_nattch,
            permissions.__key != IPC_PRIVATE, // NOLINT(bugprone-reserved-identifier)
            (permissions.mode & SHM_DEST) != 0};
}

} // namespace

std::optional<Status> statusOf(int id) {
    shmid_ds segment{};
    return ::shmctl(id, IPC_STAT, &segment) == 0 ? std::optional(read(segment)) : std::nullopt;
}

std::optional<int> makeSegment(std::size_t size, mode_t mode) {
    const int id = ::shmget(IPC_PRIVATE, size, IPC_CREAT | static_cast<int>(mode));
    return id == -1 ? std::nullopt : std::optional(id);
}

bool changeSegment(int id, mode_t mode, std::optional<gid_t> group) {
    shmid_ds segment{};
    if (::shmctl(id, IPC_STAT, &segment) != 0) {
        return false;
    }
    segment.shm_perm.mode = static_cast<decltype(segment.shm_perm.mode)>(mode);
    segment.shm_perm.gid = group.value_or(segment.shm_perm.gid);
    return ::shmctl(id, IPC_SET, &segment) == 0;
}

bool removeSegment(int id) {
    return ::shmctl(id, IPC_RMID, nullptr) == 0;
}

bool saysGone(int error) {
    return error == EIDRM || error == EINVAL;
}

void forEachReadable(const std::function<void(int, const Status&)>& visit) {
    shmid_ds segment{};
    shm_info info{};
    // NOLINTNEXTLINE(cppcoreguidelines-pro-type-reinterpret-cast): as the call is declared
    const int last = ::shmctl(0, SHM_INFO, reinterpret_cast<shmid_ds*>(&info));
    for (int index = 0; index <= last; ++index) {
        if (const int id = ::shmctl(index, SHM_STAT, &segment); id != -1) {
            visit(id, read(segment));
        }
    }
}

Attachment::Attachment(int id) noexcept {
    void* const attached = ::shmat(id, nullptr, 0);
    // NOLINTNEXTLINE: the value that the call is documented to fail with
    if (attached != reinterpret_cast<void*>(-1)) {
        address = static_cast<char*>(attached);
    }
}

Attachment::Attachment(Attachment&& other) noexcept
    : address(std::exchange(other.address, nullptr)) {
}

Attachment& Attachment::operator=(Attachment&& other) noexcept {
    std::swap(address, other.address);
    return *this;
}

Attachment::~Attachment() {
    if (address != nullptr) {
        ::shmdt(address);
    }
}

} // namespace agent::spf::sharedmemory::sysv
