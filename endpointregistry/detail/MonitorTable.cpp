#include "endpointregistry/detail/MonitorTable.h"

#include "endpointregistry/detail/NameListing.h"

#include <algorithm>
#include <cstring>
#include <iterator>
#include <optional>
#include <utility>

namespace agent::spf::endpointregistry {

namespace {

using Digits = MonitoredEntry::Digits;

constexpr std::string_view start = "qvER";
constexpr std::size_t digitCount = sizeof(Digits);

Digits firstDigitsOf(std::string_view hash) {
    Digits digits = 0;
    if (hash.size() >= digitCount) {
        std::memcpy(&digits, hash.data(), digitCount);
    }
    return digits;
}

/// What of a name lookups go by.
struct Parts {
    /// The hash of the group tag and, without anything between, that of the data.
    std::string_view tagAndData;
    std::string_view key;
};

/// Takes as many of these characters as there are off the front of a text.
std::string_view takeAll(std::string_view& text, std::string_view characters) {
    const auto end = std::min(text.find_first_not_of(characters), text.size());
    const std::string_view taken = text.substr(0, end);
    text.remove_prefix(end);
    return taken;
}

bool take(std::string_view& text, std::string_view expected) {
    const bool isThere = text.starts_with(expected);
    text.remove_prefix(isThere ? expected.size() : 0);
    return isThere;
}

/// Nothing for a name in which a part could be found in more than one place.
std::optional<Parts> partsOf(std::string_view name) {
    constexpr std::string_view hexadecimal = "0123456789abcdef";
    constexpr std::string_view decimal = "0123456789";
    if (!take(name, start)) {
        return std::nullopt;
    }
    Parts parts;
    parts.tagAndData = takeAll(name, hexadecimal);
    if (!take(name, "k")) {
        return std::nullopt;
    }
    parts.key = takeAll(name, hexadecimal);
    for (const std::string_view marker : {"l", "p", "v"}) {
        if (!take(name, marker)) {
            return std::nullopt;
        }
        takeAll(name, decimal);
    }
    return name.empty() ? std::optional(parts) : std::nullopt;
}

} // namespace

MonitoredEntry::MonitoredEntry(std::string entryName, Endpoint::DataPair data,
                               foundation::os::FileIdentity file, std::uint64_t appearance)
    : name(std::move(entryName))
    , data(std::move(data))
    , file(file)
    , appearance(appearance) {
    if (const auto parts = partsOf(name)) {
        tag = firstDigitsOf(parts->tagAndData);
        const Digits key = firstDigitsOf(parts->key);
        if (tag != 0 && key != 0) {
            tagAndKey = {tag, key};
        }
    }
}

const MonitoredEntry* MonitorTable::withName(std::string_view name) const {
    const auto& index = entries.get<ByName>();
    const auto found = index.find(name);
    return found != index.end() ? &*found : nullptr;
}

std::vector<std::string> MonitorTable::withInode(ino_t inode) const {
    std::vector<std::string> names;
    const auto [first, last] = entries.get<ByInode>().equal_range(inode);
    std::transform(first, last, std::back_inserter(names),
                   [](const MonitoredEntry& entry) { return entry.name; });
    return names;
}

MonitorTable::Found MonitorTable::find(std::string_view tagPrefix, std::string_view keyPart) const {
    Found found;
    const auto among = [&](const auto& range) {
        for (auto at = range.first; at != range.second && !found.isOneOfSeveral; ++at) {
            if (contains(at->name, keyPart) && contains(at->name, tagPrefix)) {
                found.isOneOfSeveral = found.entry != nullptr;
                found.entry = &*at;
            }
        }
    };
    const MonitoredEntry::TagAndKey none{};
    const MonitoredEntry::TagAndKey wanted{firstDigitsOf(tagPrefix.substr(start.size())),
                                           firstDigitsOf(keyPart.substr(1))};
    if (wanted[0] == 0 || wanted[1] == 0) {
        among(std::pair(entries.begin(), entries.end()));
        return found;
    }
    const auto& index = entries.get<ByTagAndKey>();
    among(index.equal_range(wanted));
    among(index.equal_range(none));
    return found;
}

void MonitorTable::visit(std::string_view tagPrefix, const Visitor& visitor) const {
    const auto among = [&](const auto& range) {
        std::for_each(range.first, range.second, [&](const auto& entry) {
            if (contains(entry.name, tagPrefix)) {
                visitor(entry);
            }
        });
    };
    const Digits wanted = firstDigitsOf(tagPrefix.substr(start.size()));
    if (wanted == 0) {
        among(std::pair(entries.begin(), entries.end()));
        return;
    }
    const auto& index = entries.get<ByTag>();
    among(index.equal_range(wanted));
    among(index.equal_range(Digits{0}));
}

void MonitorTable::erase(std::string_view name) {
    auto& index = entries.get<ByName>();
    if (const auto found = index.find(name); found != index.end()) {
        index.erase(found);
    }
}

} // namespace agent::spf::endpointregistry
