#pragma once

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <dirent.h>
#include <fcntl.h>
#include <string_view>
#include <sys/file.h>
#include <system_error>
#include <unistd.h>

/// What lookups and publications on the floor have in common.
namespace benchmarks::floor {

inline constexpr const char* segmentFolder = "/dev/shm/";
inline constexpr std::size_t firstLengthOffset = 8;
inline constexpr std::size_t dataOffset = 16;
inline constexpr std::size_t overhead = 17;
inline constexpr std::size_t asMuchAsFits = 32768;

inline int check(int result, const char* call) {
    if (result == -1) {
        throw std::system_error(errno, std::generic_category(), call);
    }
    return result;
}

/// Calls `visit` with one name of an open folder after the other, from where its reading stands,
/// until it says that this one is it. Reads so many bytes at first, and then more and more.
template<typename Visit>
void findName(int folder, std::size_t atOnce, Visit visit) {
    // What is compared with a name may be longer than the last one in the buffer.
    constexpr std::size_t margin = 256;
    // NOLINTNEXTLINE(*-member-init): filled by the kernel
    alignas(dirent64) std::array<char, asMuchAsFits + margin> buffer;
    for (;; atOnce = std::min(2 * atOnce, asMuchAsFits)) {
        const ssize_t size = ::getdents64(folder, buffer.data(), atOnce);
        if (size <= 0) {
            check(static_cast<int>(size), "getdents64");
            return;
        }
        for (const char* at = buffer.data(); at != buffer.data() + size;) {
            std::uint16_t length = 0;
            std::memcpy(&length, at + offsetof(dirent64, d_reclen), sizeof length);
            if (visit(at + offsetof(dirent64, d_name))) {
                return;
            }
            at += length;
        }
    }
}

/// Calls `visit` with every name, to the end.
template<typename Visit>
void forEachName(int folder, Visit visit) {
    findName(folder, asMuchAsFits, [&](const char* name) {
        visit(name);
        return false;
    });
}

inline bool beginsWith(const char* name, std::string_view part) {
    return std::memcmp(name, part.data(), part.size()) == 0;
}

/// Whether the part, which begins with a letter that is rare in names, is anywhere in the name.
/// No part has a zero byte, so a comparison ends at the end of the name.
inline bool contains(const char* name, std::string_view part) {
    for (const char* at = std::strchr(name, part.front()); at != nullptr;
         at = std::strchr(at + 1, part.front())) {
        if (beginsWith(at, part)) {
            return true;
        }
    }
    return false;
}

/// As `contains`, for a part that names begin with.
inline bool containsAsRule(const char* name, std::string_view part) {
    return beginsWith(name, part) || contains(name, part);
}

/// Whether somebody holds the lock of the entry's file. One that has gone since counts as held.
inline bool isLocked(int folder, const char* name) {
    const int file = ::openat(folder, name, O_RDONLY | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK);
    if (file == -1) {
        return true;
    }
    const bool isHeld = ::flock(file, LOCK_SH | LOCK_NB) == -1 && errno == EWOULDBLOCK;
    ::close(file);
    return isHeld;
}

inline int openFolder(const char* path) {
    return check(::open(path, O_RDONLY | O_DIRECTORY | O_CLOEXEC), path);
}

} // namespace benchmarks::floor
