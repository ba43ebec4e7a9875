#include "benchmarks/Floor.h"
#include "benchmarks/FloorCalls.h"

#include <array>
#include <cstdint>
#include <cstring>
#include <fcntl.h>
#include <stdexcept>
#include <string>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>
#include <utility>

namespace benchmarks::floor {

namespace {

std::size_t countSynonyms(int folder, const Entry& entry) {
    std::size_t count = 0;
    forEachName(folder, [&](const char* name) {
        const bool isSynonym =
            containsAsRule(name, entry.groupPart) &&
            (containsAsRule(name, entry.extendedPart) || contains(name, entry.keyPart));
        if (isSynonym && isLocked(folder, name)) {
            ++count;
        }
    });
    return count;
}

/// Gives an unnamed file its name.
void link(int file, int folder, const char* name) {
    if (::linkat(file, "", folder, name, AT_EMPTY_PATH) == -1) {
        // Before Linux 6.10 that takes a capability, which an ordinary user has not.
        const std::string path = "/proc/self/fd/" + std::to_string(file);
        check(::linkat(AT_FDCWD, path.c_str(), folder, name, AT_SYMLINK_FOLLOW), "linkat");
    }
}

int makeLockedFile(int folder, const std::string& name) {
    const int file =
        check(::openat(folder, ".", O_TMPFILE | O_RDWR | O_CLOEXEC, S_IRUSR), "openat");
    check(::flock(file, LOCK_EX | LOCK_NB), "flock");
    link(file, folder, name.c_str());
    return file;
}

void makeSegment(const std::string& path, const DataPair& data) {
    const std::size_t size = data.first.size() + data.second.size() + overhead;
    std::array<char, 4096> bytes{};
    if (size > bytes.size()) {
        throw std::length_error("data");
    }
    const std::uint64_t firstLength = data.first.size();
    bytes[0] = 1;
    std::memcpy(bytes.data() + firstLengthOffset, &firstLength, sizeof firstLength);
    data.first.copy(bytes.data() + dataOffset, data.first.size());
    data.second.copy(bytes.data() + dataOffset + data.first.size(), data.second.size());

    const int segment = check(
        ::open(segmentFolder, O_TMPFILE | O_RDWR | O_CLOEXEC, S_IRUSR | S_IWUSR), segmentFolder);
    check(static_cast<int>(::pwrite(segment, bytes.data(), size, 0)), "pwrite");
    link(segment, AT_FDCWD, path.c_str());
    ::close(segment);
}

} // namespace

Publication::Publication(const Folder& folder, const Entry& entry, Synonyms synonyms)
    : path(folder.pathOf(entry))
    , segmentPath(folder.segmentPathOf(entry))
    , hintPath(folder.hintPathOf(entry.groupPart, entry.keyPart)) {
    const int entries = openFolder(folder.path.c_str());
    if (synonyms == Synonyms::areSought && countSynonyms(entries, entry) != 0) {
        throw std::runtime_error("a synonym exists");
    }
    lock = makeLockedFile(entries, entry.name);
    makeSegment(segmentPath, entry.data);
    if (synonyms == Synonyms::areSought) {
        check(static_cast<int>(::lseek(entries, 0, SEEK_SET)), "lseek");
        if (countSynonyms(entries, entry) != 1) {
            throw std::runtime_error("a synonym came");
        }
    }
    ::close(entries);
    check(::symlink(entry.name.c_str(), hintPath.c_str()), "symlink");
}

Publication::Publication(Publication&& other) noexcept
    : path(std::move(other.path))
    , segmentPath(std::move(other.segmentPath))
    , hintPath(std::move(other.hintPath))
    , lock(std::exchange(other.lock, -1)) {
}

Publication::~Publication() {
    if (lock != -1) {
        ::unlink(hintPath.c_str());
        ::unlink(segmentPath.c_str());
        ::unlink(path.c_str());
        ::close(lock);
    }
}

} // namespace benchmarks::floor
