#include "benchmarks/Floor.h"

#include "benchmarks/FloorCalls.h"
#include "endpointregistry/EntryName.h"

#include <algorithm>
#include <array>
#include <charconv>
#include <cstdint>
#include <cstring>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace benchmarks::floor {

namespace {

namespace registry = agent::spf::endpointregistry;

unsigned long numberAfter(char marker, std::string_view name) {
    const std::string_view digits = name.substr(name.rfind(marker) + 1);
    unsigned long number = 0;
    std::from_chars(digits.data(), digits.data() + digits.size(), number);
    return number;
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

/// The data of an entry whose publisher lives, or two empty strings. The entry's file is looked for
/// in the folder, or by its path.
DataPair readEntry(int folder, const char* file, std::string_view name, const Segments& segments,
                   uid_t user) {
    const auto process = static_cast<pid_t>(numberAfter('p', name));
    if (::getpgid(process) == -1 && !isLocked(folder, file)) {
        return {};
    }
    const int segment = openSegment(segments, name);
    if (segment == -1) {
        return {};
    }
    DataPair data;
    if (isLocked(folder, file)) {
        data = readSegment(segment, numberAfter('l', name), user);
    }
    ::close(segment);
    return data;
}

bool isEntry(const DataPair& data) {
    return !data.first.empty() || !data.second.empty();
}

std::string makeFolder(uid_t user, const std::string& name) {
    std::string path = "/dev/shm/Corvantis-" + std::to_string(user);
    ::mkdir(path.c_str(), S_IRWXU);
    path += "/" + name + "/";
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
    : user(::geteuid())
    , path(makeFolder(user, "qvEndpointRegistry"))
    , hints(makeFolder(user, "qvEndpointHints"))
    , segmentSuffix("@u" + std::to_string(user)) {
}

std::string Folder::segmentPathOf(const Entry& entry) const {
    return segmentFolder + entry.name + segmentSuffix;
}

std::string Folder::hintPathOf(std::string_view groupPart, std::string_view keyPart) const {
    constexpr std::size_t beforeHash = std::string_view("qvER").size();
    std::string hint;
    hint.reserve(hints.size() + groupPart.size() + keyPart.size());
    return hint.append(hints).append(groupPart.substr(beforeHash)).append(keyPart);
}

std::optional<DataPair> Folder::find(std::string_view groupPart, std::string_view keyPart) const {
    std::optional<DataPair> found = findHinted(groupPart, keyPart);
    return found ? found : findListed(groupPart, keyPart);
}

std::optional<DataPair> Folder::findHinted(std::string_view groupPart,
                                           std::string_view keyPart) const {
    constexpr std::size_t longestName = 255;
    std::array<char, longestName + 1> text; // NOLINT(*-member-init): filled by readlink
    const std::string hint = hintPathOf(groupPart, keyPart);
    const ssize_t length = ::readlink(hint.c_str(), text.data(), longestName);
    if (length == -1) {
        return std::nullopt;
    }
    text.at(static_cast<std::size_t>(length)) = '\0';
    const char* const name = text.data();
    if (!containsAsRule(name, groupPart) || !contains(name, keyPart)) {
        return std::nullopt;
    }
    const Segments segments{AT_FDCWD, segmentFolder, segmentSuffix};
    DataPair data = readEntry(AT_FDCWD, (path + name).c_str(), name, segments, user);
    return isEntry(data) ? std::optional(std::move(data)) : std::nullopt;
}

std::optional<DataPair> Folder::findListed(std::string_view groupPart,
                                           std::string_view keyPart) const {
    std::optional<DataPair> found;
    const Segments segments{AT_FDCWD, segmentFolder, segmentSuffix};
    constexpr std::size_t little = 2048;
    const int entries = openFolder(path.c_str());
    findName(entries, little, [&](const char* name) {
        if (containsAsRule(name, groupPart) && contains(name, keyPart)) {
            if (DataPair data = readEntry(entries, name, name, segments, user); isEntry(data)) {
                found = std::move(data);
            }
        }
        return found.has_value();
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
            if (DataPair data = readEntry(entries, name, name, segments, user); isEntry(data)) {
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

} // namespace benchmarks::floor
