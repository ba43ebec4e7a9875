#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <sys/types.h>

namespace agent::spf::endpointregistry {

/// The bytes of a table's base segment, in the machine's byte order. Any member of the group may
/// have written anything there, so nothing read from them is believed without a check.
///
///     offset 0   32 bits    the process that claimed initialisation; 0: nobody
///            4    8 bits    bit 0: initialised
///            5    8 bits    which descriptor is current, 0 or 1
///            8   2 x 64     width of either descriptor, bytes of a row
///           24   2 x 64     length of either descriptor, rows
///           40   2 x 64     generation of either descriptor; 0: it describes no container
///
/// The first two fields are atomic. All else is read and written under the table's lock.
class ArrayBase {
public:
    static constexpr std::size_t size = 56;

    struct Descriptor {
        std::uint64_t width = 0;
        std::uint64_t length = 0;
        std::uint64_t generation = 0;
    };

    /// A view of a segment of at least `size` bytes.
    explicit ArrayBase(void* segment)
        : bytes(static_cast<char*>(segment)) {}

    /// Claims initialisation for a process; 0 when it succeeded, else the process that has it.
    pid_t claim(pid_t process) const;

    /// The process that has the claim; 0 when none has.
    pid_t claimant() const;

    /// Takes the claim back from a process that died, if it is still that process's.
    void clearClaim(pid_t process) const;

    bool isInitialised() const;

    /// False when the flags were not clear.
    bool setInitialised() const;

    /// Initialises a base for this process, whose first container has this generation. False when
    /// the flags were not clear. For whoever holds the table's lock.
    bool initialize(std::uint64_t generation) const;

    /// The bytes of a new base that this process has initialised.
    static std::string initialContents(std::uint64_t generation);

    /// Whether the current descriptor is one of the two and describes a container.
    bool isConsistent() const;

    Descriptor current() const { return descriptor(currentIndex()); }
    Descriptor other() const { return descriptor(otherIndex()); }
    void setCurrent(const Descriptor& value) const { setDescriptor(currentIndex(), value); }
    void setOther(const Descriptor& value) const { setDescriptor(otherIndex(), value); }

    /// Makes the other descriptor the current one.
    void flip() const;

private:
    std::size_t currentIndex() const;
    std::size_t otherIndex() const { return currentIndex() ^ 1U; }
    Descriptor descriptor(std::size_t index) const;
    void setDescriptor(std::size_t index, const Descriptor& value) const;

    char* bytes;
};

} // namespace agent::spf::endpointregistry
