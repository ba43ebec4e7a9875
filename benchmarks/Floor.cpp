#include "benchmarks/Floor.h"

#include "endpointregistry/EntryName.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <charconv>
#include <cstdint>
#include <cstring>
#include <dirent.h>
#include <fcntl.h>
#include <stdexcept>
#include <sys/file.h>
#include <sys/stat.h>
#include <system_error>
#include <unistd.h>

namespace benchmarks::floor {

namespace {

namespace registry = agent::spf::endpointregistry;

constexpr const char* segmentFolder = "/dev/shm/";
constexpr std::size_t firstLengthOffset = 8;
constexpr std::size_t dataOffset = 16;
constexpr std::size_t overhead = 17;

int check(int result, const char* call) {
    if (result == -1) {
        throw std::system_error(errno, std::generic_category(), call);
    }
    return result;
}

/// Calls `visit` with every name of an open folder, from where its reading stands to the end.
template<typename Visit>
void forEachName(int folder, Visit visit) {
    // What is compared with a name may be longer than the last one in the buffer.
    constexpr std::size_t buffered = 32768;
    constexpr std::size_t margin = 256;
    alignas(dirent64) std::array<char, buffered + margin> buffer; // NOLINT: filled by the kernel
    for (;;) {
        const ssize_t size = ::getdents64(folder, buffer.data(), buffered);
        if (size <= 0) {
            check(static_cast<int>(size), "getdents64");
            return;
        }
        for (const char* at = buffer.data(); at != buffer.data() + size;) {
            std::uint16_t length = 0;
            std::memcpy(&length, at + offsetof(dirent64, d_reclen), sizeof length);
            visit(at + offsetof(dirent64, d_name));
            at += length;
        }
    }
}

bool beginsWith(const char* name, std::string_view part) {
    return std::memcmp(name, part.data(), part.size()) == 0;
}

/// Whether the part, which begins with a letter that is rare in names, is anywhere in the name.
/// No part has a zero byte, so a comparison ends at the end of the name.
bool contains(const char* name, std::string_view part) {
    for (const char* at = std::strchr(name, part.front()); at != nullptr;
         at = std::strchr(at + 1, part.front())) {
        if (beginsWith(at, part)) {
            return true;
        }
    }
    return false;
}

/// As `contains`, for a part that names begin with.
bool containsAsRule(const char* name, std::string_view part) {
    return beginsWith(name, part) || contains(name, part);
}

unsigned long numberAfter(char marker, std::string_view name) {
    const std::string_view digits = name.substr(name.rfind(marker) + 1);
    unsigned long number = 0;
    std::from_chars(digits.data(), digits.data() + digits.size(), number);
    return number;
}

/// Whether somebody holds the lock of the entry's file. One that has gone since counts as held.
bool isLocked(int folder, const char* name) {
    const int file = ::openat(folder, name, O_RDONLY | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK);
    if (file == -1) {
        return true;
    }
    const bool isHeld = ::flock(file, LOCK_SH | LOCK_NB) == -1 && errno == EWOULDBLOCK;
    ::close(file);
    return isHeld;
}

/// Where segments are looked for: the folder, unless it is held open, and what their names end
/// with.
struct Segments {
    int folder = AT_FDCWD;
    std::string_view prefix;
    std::string_view suffix;
};

/// Opens an entry's segment; one whose name is too long is left to the library.
int openSegment(const Segments& segments, std::string_view name) {
    std::array<char, 512> path; // NOLINT(*-member-init): filled at once
    if (segments.prefix.size() + name.size() + segments.suffix.size() >= path.size()) {
        return -1;
    }
    char* end = path.data();
    for (const std::string_view part : {segments.prefix, name, segments.suffix}) {
        end = std::copy(part.begin(), part.end(), end);
    }
    *end = '\0';
    return ::openat(segments.folder, path.data(), O_RDONLY | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK);
}

/// The data of an open segment. More than the buffer holds is left to the library.
DataPair readSegment(int segment, std::size_t length, uid_t user) {
    std::array<char, 4096> bytes; // NOLINT(*-member-init): filled by pread
    const std::size_t size = length + overhead;
    struct stat status; // NOLINT(*-member-init): filled by fstat
    if (size > bytes.size() || ::fstat(segment, &status) != 0 || status.st_uid != user ||
        ::pread(segment, bytes.data(), size, 0) != static_cast<ssize_t>(size)) {
        return {};
    }
    std::uint64_t firstLength = 0;
    std::memcpy(&firstLength, bytes.data() + firstLengthOffset, sizeof firstLength);
    if (bytes[0] != 1 || firstLength > length) {
        return {};
    }
    const char* const data = bytes.data() + dataOffset;
    return {std::string(data, firstLength), std::string(data + firstLength, length - firstLength)};
}

/// The data of an entry whose publisher lives, or two empty strings.
DataPair readEntry(int folder, const char* entryName, const Segments& segments, uid_t user) {
    const std::string_view name = entryName;
    const auto process = static_cast<pid_t>(numberAfter('p', name));
    if (::getpgid(process) == -1 && !isLocked(folder, entryName)) {
        return {};
    }
    const int segment = openSegment(segments, name);
    if (segment == -1) {
        return {};
    }
    DataPair data;
    if (isLocked(folder, entryName)) {
        data = readSegment(segment, numberAfter('l', name), user);
    }
    ::close(segment);
    return data;
}

bool isEntry(const DataPair& data) {
    return !data.first.empty() || !data.second.empty();
}

int openFolder(const char* path) {
    return check(::open(path, O_RDONLY | O_DIRECTORY | O_CLOEXEC), path);
}

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
    ::posix_fallocate(segment, 0, static_cast<off_t>(size));
    check(static_cast<int>(::pwrite(segment, bytes.data(), size, 0)), "pwrite");
    link(segment, AT_FDCWD, path.c_str());
    ::close(segment);
}

std::string makeFolders(uid_t user) {
    std::string path = "/dev/shm/Corvantis-" + std::to_string(user);
    ::mkdir(path.c_str(), S_IRWXU);
    path += "/qvEndpointRegistry/";
    ::mkdir(path.c_str(), S_IRWXU);
    return path;
}

} // namespace

Entry::Entry(DataPair data, const std::string& groupTag, const std::string& selectedKey)
    : data(std::move(data))
    , name(registry::getName(this->data, groupTag, selectedKey, 0, {}))
    , groupPart(registry::getGroupTagPrefix(groupTag))
    , extendedPart(registry::getExtendedPrefix(this->data, groupTag))
    , keyPart(registry::getSelectedKeySubstring(selectedKey)) {
}

Folder::Folder()
    : path(makeFolders(::geteuid()))
    , user(::geteuid())
    , segmentSuffix("@u" + std::to_string(user)) {
}

std::string Folder::segmentPathOf(const Entry& entry) const {
    return segmentFolder + entry.name + segmentSuffix;
}

std::optional<DataPair> Folder::find(std::string_view groupPart, std::string_view keyPart) const {
    std::optional<DataPair> found;
    const Segments segments{AT_FDCWD, segmentFolder, segmentSuffix};
    const int entries = openFolder(path.c_str());
    forEachName(entries, [&](const char* name) {
        if (containsAsRule(name, groupPart) && contains(name, keyPart) && !found) {
            if (DataPair data = readEntry(entries, name, segments, user); isEntry(data)) {
                found = std::move(data);
            }
        }
    });
    ::close(entries);
    return found;
}

std::vector<DataPair> Folder::list(std::string_view groupPart) const {
    std::vector<DataPair> found;
    // With many entries it pays to walk the folder's path once.
    const Segments segments{openFolder(segmentFolder), {}, segmentSuffix};
    const int entries = openFolder(path.c_str());
    forEachName(entries, [&](const char* name) {
        if (containsAsRule(name, groupPart)) {
            if (DataPair data = readEntry(entries, name, segments, user); isEntry(data)) {
                found.push_back(std::move(data));
            }
        }
    });
    ::close(entries);
    ::close(segments.folder);
    std::sort(found.begin(), found.end());
    found.erase(std::unique(found.begin(), found.end()), found.end());
    return found;
}

Publication::Publication(const Folder& folder, const Entry& entry, Synonyms synonyms)
    : path(folder.pathOf(entry))
    , segmentPath(folder.segmentPathOf(entry)) {
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
}

Publication::Publication(Publication&& other) noexcept
    : path(std::move(other.path))
    , segmentPath(std::move(other.segmentPath))
    , lock(std::exchange(other.lock, -1)) {
}

Publication::~Publication() {
    if (lock != -1) {
        ::unlink(segmentPath.c_str());
        ::unlink(path.c_str());
        ::close(lock);
    }
}

} // namespace benchmarks::floor
