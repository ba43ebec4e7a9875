#include "endpointregistry/detail/EntryCopy.h"

#include <algorithm>
#include <cstdint>
#include <cstring>

namespace agent::spf::endpointregistry::entrycopy {

namespace {

constexpr std::string_view mark = "qvERcopy";
constexpr std::size_t tokenOffset = mark.size();
constexpr std::size_t firstLengthOffset = tokenOffset + sizeof(sharedmemory::SegmentToken);
constexpr std::size_t dataOffset = firstLengthOffset + sizeof(std::uint64_t);

} // namespace

std::optional<std::size_t> sizeFor(unsigned long length) {
    return length <= maxTotal - dataOffset ? std::optional<std::size_t>(dataOffset + length)
                                           : std::nullopt;
}

std::string contentsOf(const DataPair& data, const sharedmemory::SegmentToken& base) {
    const std::uint64_t firstLength = data.first.size();
    std::string contents(dataOffset, '\0');
    std::copy(mark.begin(), mark.end(), contents.begin());
    std::memcpy(contents.data() + tokenOffset, base.data(), base.size());
    std::memcpy(contents.data() + firstLengthOffset, &firstLength, sizeof firstLength);
    return contents.append(data.first).append(data.second);
}

std::optional<Copy> parse(std::string_view bytes) {
    if (bytes.size() < dataOffset || bytes.substr(0, mark.size()) != mark) {
        return std::nullopt;
    }
    Copy copy;
    std::uint64_t firstLength = 0;
    std::memcpy(copy.base.data(), bytes.data() + tokenOffset, copy.base.size());
    std::memcpy(&firstLength, bytes.data() + firstLengthOffset, sizeof firstLength);
    bytes.remove_prefix(dataOffset);
    if (firstLength > bytes.size()) {
        return std::nullopt;
    }
    copy.data = {std::string(bytes.substr(0, firstLength)), std::string(bytes.substr(firstLength))};
    return copy;
}

} // namespace agent::spf::endpointregistry::entrycopy
