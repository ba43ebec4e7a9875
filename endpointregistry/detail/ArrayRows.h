#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace agent::spf::endpointregistry {

/// The rows of a table's container segment.
///
///     offset 0              8 bytes that are never used
///            8 + r * width  row r
///            8 + length * width   one byte that is never used
///
/// A row's first byte is the number of its elements, 0 for a free row; from 128 on it reads as 1.
/// The elements follow, each with a zero byte behind it; what comes after the last is undefined.
/// Members may have written anything, at any time: no walk leaves its row, and nothing that was
/// measured is measured again.
class ArrayRows {
public:
    /// What a container has beside its rows.
    static constexpr std::size_t overhead = 9;

    static constexpr std::size_t maxElements = 127;

    /// A view of a container of at least `overhead + length * width` bytes. Rows of no bytes are no
    /// rows.
    ArrayRows(void* container, std::uint64_t length, std::uint64_t width);

    std::size_t count() const { return rowCount; }

    bool isFree(std::size_t row) const { return *at(row) == 0; }

    /// The number of the first free row; that of the rows where there is none.
    std::size_t firstFree() const;

    /// The bytes that a row's count and elements take; at most the width.
    std::size_t usedWidth(std::size_t row) const;

    /// Empty for a row that has none.
    std::string_view firstElement(std::size_t row) const;

    /// Fewer than the row's count where the row ends before.
    std::vector<std::string> elements(std::size_t row) const;

    bool equals(std::size_t row, const std::vector<std::string>& entry) const;

    /// The bytes that an entry takes.
    static std::size_t widthFor(const std::vector<std::string>& entry);

    /// Writes an entry that fits into a row; the count comes last, so that a crash leaves the row
    /// free.
    void write(std::size_t row, const std::vector<std::string>& entry) const;

    void free(std::size_t row) const { *at(row) = 0; }

    /// Copies the first bytes of every row that is not free to another container's first rows, as
    /// far as these go.
    void packInto(const ArrayRows& target, std::size_t bytesPerRow) const;

private:
    char* at(std::size_t row) const { return first + row * width; }
    std::size_t elementCount(std::size_t row) const;
    template<typename Visit>
    std::size_t walk(std::size_t row, Visit visit) const;

    char* first;
    std::size_t rowCount;
    std::size_t width;
};

} // namespace agent::spf::endpointregistry
