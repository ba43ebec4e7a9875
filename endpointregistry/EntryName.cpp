#include "endpointregistry/EntryName.h"

#include "endpointregistry/detail/CityHash64.h"

#include <array>
#include <charconv>
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
    if (text.empty()) {
        return {};
    }
    std::array<char, 2 * sizeof(std::uint64_t)> digits{};
    const auto [end, error] =
        std::to_chars(digits.data(), digits.data() + digits.size(), cityHash64(text), 16);
    return {digits.data(), end};
}

std::string getGroupTagPrefix(const std::string& groupTag) {
    return "qvER" + hashString(groupTag);
}

std::string getExtendedPrefix(const std::pair<std::string, std::string>& data,
                              const std::string& groupTag) {
    return getGroupTagPrefix(groupTag) + hashString(data.first + data.second);
}

std::string getSelectedKeySubstring(const std::string& selectedKey) {
    return keyMarker + hashString(selectedKey);
}

std::string getName(const std::pair<std::string, std::string>& data, const std::string& groupTag,
                    const std::string& selectedKey, unsigned long version,
                    const std::string& /*trustee*/) {
    const std::size_t length = (data.first + data.second).size();
    return getExtendedPrefix(data, groupTag) + getSelectedKeySubstring(selectedKey) + lengthMarker +
           std::to_string(length) + processMarker + std::to_string(::getpid()) + versionMarker +
           std::to_string(version);
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
