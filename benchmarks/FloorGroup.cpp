#include "benchmarks/FloorGroup.h"

#include "benchmarks/FloorCalls.h"
#include "endpointregistry/EntryName.h"
#include "endpointregistry/Folders.h"

#include <array>
#include <cstdint>
#include <cstring>
#include <grp.h>
#include <linux/openat2.h>
#include <stdexcept>
#include <sys/shm.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/xattr.h>
#include <utility>

namespace benchmarks::floor {

namespace {

gid_t idOf(const std::string& trustee) {
    std::array<char, 1024> buffer; // NOLINT(*-member-init): filled by the call
    group entry{};
    group* found = nullptr;
    ::getgrnam_r(trustee.c_str(), &entry, buffer.data(), buffer.size(), &found);
    if (found == nullptr) {
        throw std::runtime_error("no such group");
    }
    return entry.gr_gid;
}

int openThroughNoLink(const std::string& path, unsigned flags) {
    open_how how{};
    how.flags = O_RDONLY | O_CLOEXEC | flags;
    how.resolve = RESOLVE_NO_SYMLINKS;
    return check(static_cast<int>(::syscall(SYS_openat2, AT_FDCWD, path.c_str(), &how, sizeof how)),
                 "openat2");
}

/// An attachment to the segment that a record names, whose group was looked at.
char* attach(const std::string& record, gid_t trustee) {
    constexpr std::size_t idOffset = 8;
    std::array<char, 32> bytes{};
    const int file = openThroughNoLink(record, 0);
    if (::pread(file, bytes.data(), bytes.size(), 0) != static_cast<ssize_t>(bytes.size())) {
        throw std::runtime_error("no record");
    }
    ::close(file);
    int id = -1;
    std::memcpy(&id, bytes.data() + idOffset, sizeof id);
    shmid_ds status{};
    check(::shmctl(id, IPC_STAT, &status), "shmctl");
    if (status.shm_perm.gid != trustee) {
        throw std::runtime_error("not the group's");
    }
    return static_cast<char*>(::shmat(id, nullptr, 0));
}

std::uint64_t numberAt(const char* bytes, std::size_t offset) {
    std::uint64_t number = 0;
    std::memcpy(&number, bytes + offset, sizeof number);
    return number;
}

/// The data in the row of this name.
std::optional<DataPair> dataIn(const char* base, const char* container, std::string_view name) {
    constexpr std::size_t indexOffset = 5;
    constexpr std::size_t widthsOffset = 8;
    constexpr std::size_t lengthsOffset = 24;
    constexpr std::size_t firstRowOffset = 8;
    const std::size_t index = base[indexOffset] == 0 ? 0 : sizeof(std::uint64_t);
    const std::uint64_t width = numberAt(base, widthsOffset + index);
    const std::uint64_t rows = numberAt(base, lengthsOffset + index);
    for (std::uint64_t row = 0; row < rows; ++row) {
        const char* const at = container + firstRowOffset + row * width;
        if (*at != 0 && name == at + 1) {
            const char* const first = at + name.size() + 2;
            return DataPair(first, first + std::strlen(first) + 1);
        }
    }
    return std::nullopt;
}

} // namespace

SharedFolder::SharedFolder(std::string group)
    : trustee(std::move(group)) {
    namespace registry = agent::spf::endpointregistry;
    const std::string top = registry::getSharedFolderPath() + "/Corvantis/";
    entries = top + "qvEndpointRegistry/" + registry::hashString(trustee);
    lock = top + "qvNamedStringArray/" + registry::hashString(trustee) + "/baseLock";
    constexpr std::size_t indexOffset = 5;
    constexpr std::size_t generationsOffset = 40;
    const gid_t id = idOf(trustee);
    const std::string table =
        top + "qvSharedMemory/" + std::to_string(id) + "/qvEndpointRegistrySysVv0";
    base = table + "@g" + trustee;
    char* const bytes = attach(base, id);
    const std::size_t index = bytes[indexOffset] == 0 ? 0 : sizeof(std::uint64_t);
    container = table + std::to_string(numberAt(bytes, generationsOffset + index)) + "@g" + trustee;
    ::shmdt(bytes);
}

std::optional<DataPair> SharedFolder::find(std::string_view groupPart,
                                           std::string_view keyPart) const {
    struct stat status {};
    const int folder = openThroughNoLink(entries, O_DIRECTORY);
    const gid_t id = idOf(trustee);
    if (::fstat(folder, &status) != 0 || status.st_gid != id || status.st_uid != ::geteuid() ||
        ::flistxattr(folder, nullptr, 0) != 0) {
        throw std::runtime_error("not the group's");
    }
    std::string name;
    forEachName(folder, [&](const char* entry) {
        if (containsAsRule(entry, groupPart) && contains(entry, keyPart)) {
            name = entry;
        }
    });
    char* const baseBytes = attach(base, id);
    const int file = openThroughNoLink(lock, 0);
    ::flock(file, LOCK_EX);
    struct stat named {};
    if (::fstat(file, &status) != 0 || ::lstat(lock.c_str(), &named) != 0 ||
        status.st_ino != named.st_ino || status.st_gid != id) {
        throw std::runtime_error("not the lock");
    }
    char* const rows = attach(container, id);
    std::optional<DataPair> found = dataIn(baseBytes, rows, name);
    ::shmdt(rows);
    ::shmdt(baseBytes);
    ::close(file);
    if (!isLocked(folder, name.c_str())) {
        found.reset();
    }
    ::close(folder);
    return found;
}

} // namespace benchmarks::floor
