#include "endpointregistry/detail/EntryHint.h"

#include "endpointregistry/EntryName.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <climits>
#include <cstddef>
#include <sys/stat.h>
#include <unistd.h>
#include <utility>

namespace agent::spf::endpointregistry {

namespace {

/// The folder of all hints, in the private base.
constexpr std::string_view parent = "qvEndpointHints";

/// What every entry's name begins with, before the hash of its group tag.
constexpr std::string_view entryPrefix = "qvER";
constexpr std::size_t longestHash = 16;

bool makeLink(const std::string& path, const std::string& text) {
    return ::symlink(text.c_str(), path.c_str()) == 0;
}

} // namespace

EntryHint::EntryHint(const std::string& base, std::string_view tagPrefix,
                     std::string_view keyPart) {
    const std::string_view tagHash = tagPrefix.substr(entryPrefix.size());
    path.reserve(base.size() + parent.size() + 1 + tagHash.size() + keyPart.size());
    path.append(base).append(parent).append(1, '/').append(tagHash).append(keyPart);
}

std::optional<std::string> EntryHint::read() const {
    std::array<char, NAME_MAX + 1> text; // NOLINT(*-member-init): filled by readlink
    const ssize_t length = ::readlink(path.c_str(), text.data(), text.size());
    if (length == -1) {
        return std::nullopt;
    }
    return std::string(text.data(), static_cast<std::size_t>(length));
}

bool EntryHint::write(const std::string& entry) const {
    if (makeLink(path, entry)) {
        return true;
    }
    switch (errno) {
    case ENOENT:
        // Whether it could be made, or somebody else has, shows in the link.
        ::mkdir(path.substr(0, path.rfind('/')).c_str(), S_IRWXU);
        return makeLink(path, entry);
    case EEXIST:
        // Left by a dead publisher, or put there by no publisher at all.
        return ::unlink(path.c_str()) == 0 && makeLink(path, entry);
    default:
        return false;
    }
}

void EntryHint::removeIfItSays(const std::string& text) const {
    if (read() == text) {
        remove();
    }
}

void EntryHint::remove() const noexcept {
    ::unlink(path.c_str());
}

void EntryHint::removeThatOf(std::string_view entry, const std::string& base) {
    const std::size_t key = entry.find('k');
    const std::size_t length = entry.find('l', std::min(key, entry.size()));
    if (!entry.starts_with(entryPrefix) || length == std::string_view::npos) {
        return;
    }
    // The hashes of tag and data stand side by side, of up to 16 digits each. Nearly all have all
    // 16, and there is one way to part them.
    const std::size_t hashes = key - entryPrefix.size();
    const std::size_t shortestTag = hashes > longestHash ? hashes - longestHash : 1;
    const std::size_t longestTag = std::min(hashes, longestHash);
    for (std::size_t tag = shortestTag; tag <= longestTag; ++tag) {
        const std::string_view tagPrefix = entry.substr(0, entryPrefix.size() + tag);
        EntryHint(base, tagPrefix, entry.substr(key, length - key))
            .removeIfItSays(std::string(entry));
    }
}

PublishedHint::PublishedHint(EntryHint hint, const std::string& entry)
    : owner(::getpid()) {
    if (hint.write(entry)) {
        this->hint = std::move(hint);
    }
}

PublishedHint::PublishedHint(PublishedHint&& other) noexcept
    : hint(std::exchange(other.hint, std::nullopt))
    , owner(other.owner) {
}

PublishedHint& PublishedHint::operator=(PublishedHint&& other) noexcept {
    if (this != &other) {
        remove();
        hint = std::exchange(other.hint, std::nullopt);
        owner = other.owner;
    }
    return *this;
}

void PublishedHint::remove() noexcept {
    // Without a look at what it says: for as long as this process holds the lock of its entry,
    // nobody else publishes the key. Where somebody has removed the entry's file and another could,
    // that one loses its hint.
    if (hint && owner == ::getpid()) {
        hint->remove();
    }
    hint.reset();
}

} // namespace agent::spf::endpointregistry
