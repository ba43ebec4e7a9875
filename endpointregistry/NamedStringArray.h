#pragma once

#include "sharedmemory/SharedMemory.h"

#include <chrono>
#include <initializer_list>
#include <string>
#include <utility>
#include <vector>

#pragma GCC visibility push(default)

namespace agent::spf::endpointregistry {

/// A table of tuples of strings in shared memory, found by name, version and trustee alone.
///
/// A row, an *entry*, holds 1 to 127 strings without zero bytes. The table of a trustee, the name
/// of an operating-system group, is shared by the group's members and is another one than that of
/// the same name of any other group; with an empty trustee it is the calling user's own. It lives
/// in a base segment of 56 bytes and a container segment that a resize replaces by one of the next
/// generation. Both outlive the processes that use them.
///
/// Every operation opens what it needs, works under one lock per trustee, and lets everything go
/// before it returns, so a process that is killed at any moment leaves a table that all others can
/// go on using. An object keeps no table open; one thread at a time uses it, and any number of
/// objects and processes use one table.
///
/// Processes that take turns with the lock are waited for, however many they are; one and the same
/// holder that does not let go of it, because it was stopped for instance, is not for longer than
/// `readTimeout` or `changeTimeout`.
///
/// What other processes wrote is checked before it is used. A table that contradicts itself is an
/// empty or missing one to `filter` and `erase`, and a std::runtime_error to `insert`. A container
/// of more than 64 MiB or 1,048,576 rows counts as such, and is never made.
///
/// All operations throw std::runtime_error when the system refuses (memory, descriptors,
/// permissions) or something stands in the table's place that does not belong to the group, and
/// std::invalid_argument when the trustee is no group.
class NamedStringArray {
public:
    using SharedMemory = sharedmemory::SharedMemory;

    /// After this time of one holder `filter` and `getNamedStringArrayDimensions` read without the
    /// lock, until two readings agree: a holder that was stopped changes nothing. They wait for a
    /// moment only where it has kept others out for that long already, and no longer than
    /// `changeTimeout` for all holders together.
    static constexpr std::chrono::seconds readTimeout{2};

    /// After this time all that changes a table throws std::runtime_error, which names the holder's
    /// process id (0 where it has not said who it is).
    static constexpr std::chrono::seconds changeTimeout{10};

    /// Names a table; touches nothing. Throws std::invalid_argument when the name is empty.
    NamedStringArray(const std::string& name, unsigned long version, const std::string& trustee);

    /// Adds an entry in the first free row, whether or not there is an equal one.
    ///
    /// Throws std::invalid_argument, before any shared memory is touched, when the entry has more
    /// than 127 elements, when it has none or all are empty, and when one contains a zero byte.
    void insert(const std::string& element);
    void insert(std::vector<std::string> entry);
    /// The same for an entry that is written in braces.
    void insert(std::initializer_list<std::string> entry);

    /// Removes the first entry that equals this one in all elements. What is missing, the table or
    /// the entry, is only logged, and so is that the table cannot shrink now.
    void erase(const std::string& element);
    void erase(std::vector<std::string> entry);
    /// The same for an entry that is written in braces.
    void erase(std::initializer_list<std::string> entry);

    /// The entries whose first element contains every one of these strings, in the order of their
    /// rows; all entries when there are none. Empty when there is no table, and makes none; of one
    /// that there is it may make the lock file again.
    std::vector<std::vector<std::string>> filter(std::vector<std::string> substrings);

    /// The trustee of the table that there is: the object's own, or that of the one an empty
    /// trustee finds (see `SharedMemory::find`), never that of another group; empty when there is
    /// none. Waits for nobody.
    std::string getTrustee() const;

    /// How the table grows and shrinks by operations of this object: in multiples of this many
    /// rows, 10 unless set, and bytes per row, 4 unless set. A step of 0 makes that dimension 0:
    /// then entries find no place and are lost without an error.
    void setLengthStep(unsigned long step);
    void setWidthStep(unsigned long step);

    /// The name of the base segment: `name`, "v" and the decimal version. Throws
    /// std::invalid_argument when the name is empty.
    static std::string getBaseName(const std::string& name, unsigned long version,
                                   const std::string& trustee);

    /// The name of a generation's container: the base's and the decimal generation.
    static std::string getContainerName(const std::string& baseName, unsigned long generation);

    /// The size in bytes of a container for so many rows of so many bytes: 9 and their product; the
    /// largest unsigned long where it is larger than that.
    static unsigned long getContainerSize(unsigned long length, unsigned long width);

    // The steps behind the operations, for those who examine a table.

    /// One attempt to initialise a base segment that was made or found; false when the caller must
    /// try again, because another process is at it, or was and died. Throws std::runtime_error when
    /// the base contradicts itself.
    bool initializeBase(SharedMemory& base);

    /// Brings the table to the size that its entries take, and one more of `neededWidth` bytes
    /// unless that is 0. `container` is the current container before and after. The caller holds
    /// the table's lock.
    void resizeContainer(SharedMemory& base, SharedMemory& container, unsigned long neededWidth);

    /// Removes what an interrupted resize has left. The caller holds the table's lock.
    void clearLeftoverContainer(SharedMemory& base, SharedMemory& container);

private:
    std::string baseName;
    std::string trustee;
    SharedMemory::ImplementationSpecifications implementation;
    unsigned long lengthStep;
    unsigned long widthStep;
};

/// The rows of a table and the bytes of a row; (0, 0) when there is no such table. It looks where
/// `NamedStringArray::getTrustee` does, and makes no table.
std::pair<unsigned long, unsigned long> getNamedStringArrayDimensions(const std::string& name,
                                                                      unsigned long version,
                                                                      const std::string& trustee);

/// Removes a table: its segments, and the lock file of all the trustee's tables, which whoever uses
/// one makes again. Processes that use the table at the moment notice and look for it again. A
/// missing table is only logged. It looks where `NamedStringArray::getTrustee` does.
void deleteNamedStringArray(const std::string& name, unsigned long version,
                            const std::string& trustee);

} // namespace agent::spf::endpointregistry

#pragma GCC visibility pop
