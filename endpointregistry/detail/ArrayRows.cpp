#include "endpointregistry/detail/ArrayRows.h"

#include <algorithm>
#include <atomic>
#include <cstring>

namespace agent::spf::endpointregistry {

namespace {

constexpr std::size_t firstRowOffset = 8;

} // namespace

ArrayRows::ArrayRows(void* container, std::uint64_t length, std::uint64_t width)
    : first(static_cast<char*>(container) + firstRowOffset)
    , rowCount(width == 0 ? 0 : length)
    , width(width) {
}

std::size_t ArrayRows::elementCount(std::size_t row) const {
    const auto stored = static_cast<unsigned char>(*at(row));
    return stored > maxElements ? 1 : stored;
}

/// Calls `visit` with each element and returns the row's used width.
template<typename Visit>
std::size_t ArrayRows::walk(std::size_t row, Visit visit) const {
    const char* const bytes = at(row);
    std::size_t position = 1;
    for (std::size_t left = elementCount(row); left > 0 && position < width; --left) {
        const char* const begin = bytes + position;
        const void* const zero = std::memchr(begin, 0, width - position);
        const std::size_t length =
            zero == nullptr ? width - position
                            : static_cast<std::size_t>(static_cast<const char*>(zero) - begin);
        visit(std::string_view(begin, length));
        position += length + (zero == nullptr ? 0 : 1);
    }
    return position;
}

std::size_t ArrayRows::firstFree() const {
    std::size_t row = 0;
    while (row < rowCount && !isFree(row)) {
        ++row;
    }
    return row;
}

std::size_t ArrayRows::usedWidth(std::size_t row) const {
    return walk(row, [](std::string_view) {});
}

std::string_view ArrayRows::firstElement(std::size_t row) const {
    if (width < 2) {
        return {};
    }
    const char* const begin = at(row) + 1;
    return {begin, ::strnlen(begin, width - 1)};
}

std::vector<std::string> ArrayRows::elements(std::size_t row) const {
    std::vector<std::string> found;
    walk(row, [&found](std::string_view element) { found.emplace_back(element); });
    return found;
}

bool ArrayRows::equals(std::size_t row, const std::vector<std::string>& entry) const {
    std::size_t index = 0;
    bool isEqual = true;
    walk(row, [&](std::string_view element) {
        isEqual = isEqual && index < entry.size() && element == entry[index];
        ++index;
    });
    return isEqual && index == entry.size();
}

std::size_t ArrayRows::widthFor(const std::vector<std::string>& entry) {
    std::size_t bytes = 1;
    for (const std::string& element : entry) {
        bytes += element.size() + 1;
    }
    return bytes;
}

void ArrayRows::write(std::size_t row, const std::vector<std::string>& entry) const {
    char* const bytes = at(row);
    std::size_t position = 1;
    for (const std::string& element : entry) {
        std::memcpy(bytes + position, element.c_str(), element.size() + 1);
        position += element.size() + 1;
    }
    std::atomic_ref(*bytes).store(static_cast<char>(entry.size()));
}

void ArrayRows::packInto(const ArrayRows& target, std::size_t bytesPerRow) const {
    const std::size_t bytes = std::min({bytesPerRow, width, target.width});
    std::size_t next = 0;
    for (std::size_t row = 0; row < rowCount && next < target.rowCount; ++row) {
        if (!isFree(row)) {
            std::memcpy(target.at(next++), at(row), bytes);
        }
    }
}

} // namespace agent::spf::endpointregistry
