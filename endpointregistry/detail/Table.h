#pragma once

#include "endpointregistry/detail/TableAccess.h"
#include "sharedmemory/SegmentRecord.h"
#include "sharedmemory/SharedMemory.h"

#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace agent::spf::endpointregistry {

/// One operation, or several, on a table of tuples of strings; `NamedStringArray` says what they
/// mean, and records use those beyond it. The access must outlive this object.
class Table {
public:
    using Row = std::vector<std::string>;

    /// Which table it is, and how it grows and shrinks.
    struct Shape {
        std::string baseName;
        unsigned long lengthStep = 10;
        unsigned long widthStep = 4;
    };

    Table(Shape shape, TableAccess& access)
        : shape(std::move(shape))
        , access(access) {}

    /// Throws std::invalid_argument when no row can hold the entry.
    static void checkEntry(const Row& entry);

    void insert(const Row& entry);
    void erase(const Row& entry);

    /// What a table holds.
    struct Reading {
        /// Which base its rows are of. Nothing where there is none, where its container is gone or
        /// contradicts it, or where it could not be read in time.
        std::optional<sharedmemory::SegmentToken> base;
        std::vector<Row> rows;

        bool operator==(const Reading&) const = default;
    };

    /// The rows whose first element contains all of these strings, read under the lock, or, where a
    /// holder does not let go of it in time, without, until two readings agree.
    Reading read(const Row& substrings);

    /// The rows and the bytes of a row, read in the same way; (0, 0) when there is no table.
    std::pair<unsigned long, unsigned long> dimensions();

    /// The table's base, made where it is missing.
    sharedmemory::SharedMemory openOrCreateBase();

    /// Inserts an entry in place of all rows whose first element contains its own. False when the
    /// base has been replaced since it was opened, or has lost its rows and was replaced here.
    bool insertReplacing(sharedmemory::SharedMemory& base, const Row& entry);

    /// Erases all rows whose first element contains this string. False, and nothing is done, when
    /// a holder does not let go of the lock in time, or the table cannot be opened: it is closed to
    /// this process, or something else has its name. Where there is no table, there is nothing to
    /// do.
    bool eraseContaining(const std::string& part, TableAccess::Lock need);

    // Under the lock.

    /// As `NamedStringArray::resizeContainer`; a container that is not attached has no rows.
    void resize(sharedmemory::SharedMemory& base, sharedmemory::SharedMemory& container,
                unsigned long neededWidth);
    void clearLeftover(const sharedmemory::SharedMemory& base);

private:
    /// Whether rows whose first element contains the new one's stay.
    enum class OldRows { stay, go };

    bool insertLocked(sharedmemory::SharedMemory& base, const Row& entry, OldRows oldRows);
    /// Makes base and container anew where the container is gone. Throws std::runtime_error where
    /// it is not gone, but contradicts the base.
    void replaceLost(const ArrayBase::Descriptor& container, sharedmemory::SharedMemory& base);
    void eraseLocked(sharedmemory::SharedMemory& base, const Row& entry);
    void shrink(sharedmemory::SharedMemory& base, sharedmemory::SharedMemory& container);
    template<typename Result>
    struct Outcome {
        Result result;
        bool isCertain;
    };
    template<typename Result, typename ReadOnce>
    Outcome<Result> readSafely(ReadOnce readOnce);

    Shape shape;
    TableAccess& access;
};

} // namespace agent::spf::endpointregistry
