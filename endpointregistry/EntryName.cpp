#include "endpointregistry/EntryName.h"

#include "endpointregistry/detail/CityHash64.h"

#include <array>
#include <charconv>
#include <cstddef>
#include <cstdint>
#include <limits>
#include <string_view>
#include <system_error>
#include <unistd.h>

namespace agent::spf::endpointregistry {

namespace {

constexpr char keyMarker = 'k';
constexpr char lengthMarker = 'l';
constexpr char processMarker = 'p';
constexpr char versionMarker = 'v';

/// Most names are shorter, so that they are put together in one piece of memory.
constexpr std::size_t usualLength = 80;

void appendNumber(std::string& name, std::uint64_t number, int base) {
    constexpr std::size_t maxDigits = std::numeric_limits<std::uint64_t>::digits10 + 1;
    std::array<char, maxDigits> digits{};
    const auto [end, error] =
        std::to_chars(digits.data(), digits.data() + digits.size(), number, base);
    name.append(digits.data(), end);
}

void appendHash(std::string& name, std::string_view text) {
    if (!text.empty()) {
        appendNumber(name, cityHash64(text), 16);
    }
}

/// The number after the last `marker`, or at the name's start where there is none, read as a
/// stream reads an unsigned long: names come from folders that anybody's program may write to.
unsigned long getNumberFromName(std::string_view name, char marker) {
    // Without a marker rfind gives npos, and npos + 1 is 0.
    std::string_view text = name.substr(name.rfind(marker) + 1);
    const std::size_t start = text.find_first_not_of(" \t\n\v\f\r");
    if (start == std::string_view::npos) {
        return 0;
    }
    text.remove_prefix(start);

    const bool isNegative = text.front() == '-';
    if (isNegative || text.front() == '+') {
        text.remove_prefix(1);
    }
    unsigned long number = 0;
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), number);
    if (error == std::errc::result_out_of_range) {
        return std::numeric_limits<unsigned long>::max();
    }
    return isNegative ? 0 - number : number;
}

} // namespace

std::string hashString(const std::string& text) {
    std::string digits;
    appendHash(digits, text);
    return digits;
}

std::string getGroupTagPrefix(const std::string& groupTag) {
    std::string prefix;
    prefix.reserve(usualLength);
    prefix += "qvER";
    appendHash(prefix, groupTag);
    return prefix;
}

std::string getExtendedPrefix(const std::pair<std::string, std::string>& data,
                              const std::string& groupTag) {
    std::string prefix = getGroupTagPrefix(groupTag);
    appendHash(prefix, data.first + data.second);
    return prefix;
}

std::string getSelectedKeySubstring(const std::string& selectedKey) {
    std::string part(1, keyMarker);
    appendHash(part, selectedKey);
    return part;
}

std::string getName(const std::pair<std::string, std::string>& data, const std::string& groupTag,
                    const std::string& selectedKey, unsigned long version,
                    const std::string& /*trustee*/) {
    std::string name = getExtendedPrefix(data, groupTag);
    name += keyMarker;
    appendHash(name, selectedKey);
    name += lengthMarker;
    appendNumber(name, data.first.size() + data.second.size(), 10);
    name += processMarker;
    appendNumber(name, static_cast<std::uint64_t>(::getpid()), 10);
    name += versionMarker;
    appendNumber(name, version, 10);
    return name;
}

unsigned long getLengthFromName(const std::string& name) {
    return getNumberFromName(name, lengthMarker);
}

unsigned long getPidFromName(const std::string& name) {
    return getNumberFromName(name, processMarker);
}

unsigned long getVersionFromName(const std::string& name) {
    return getNumberFromName(name, versionMarker);
}

} // namespace agent::spf::endpointregistry
