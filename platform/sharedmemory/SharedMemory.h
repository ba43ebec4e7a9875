#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

#pragma GCC visibility push(default)

namespace agent::spf::sharedmemory {

/// Handle on one named segment of shared memory.
///
/// A segment is known by its name, any bytes of any length, together with the trustee it was made
/// for: the name of the operating-system group whose members may attach to it, or empty for the
/// calling user alone, in which case the user belongs to its identity. Two users' private segments
/// of one name never meet.
///
/// Nobody ever sees a segment half made: it can be found only at its full size, with all bytes zero
/// or the contents that it was made with, its final owner and mode, its memory reserved. What is
/// found is checked before it is used: who made it, its group, its mode and its size.
///
/// A handle may be moved and not copied; one thread at a time uses it, while the bytes behind it
/// belong to all processes attached. A child made by fork() inherits handles that stay attached
/// but are no creator's and remove nothing.
class SharedMemory {
public:
    enum class ImplementationSpecifications : std::uint32_t {
        /// Segments of POSIX shared memory.
        Posix = 0,
        /// Segments of System V shared memory. A small file, the segment's record, stands for it in
        /// a directory that only the trustee can write to: `/home/Shared/Corvantis/qvSharedMemory/`
        /// and the group's number, or the user's private base folder. An attached handle holds
        /// that directory open. Since only its owner may remove a segment from the kernel, one that
        /// another member removes is found no more, and goes for good when its owner next makes a
        /// segment for that trustee.
        SysV = 1,
    };

    // The openers. `size` is in bytes and at least 1. All throw std::invalid_argument when the
    // size is 0, the trustee is no group or the implementation is unknown, and std::runtime_error
    // when the system refuses: too few descriptors, no memory left, no permission. So do those of
    // System V segments when what stands in the place of their directory is not the trustee's. Any
    // thread may call them.

    /// Makes a new segment of exactly this size. Not attached when there is one already. It goes
    /// with the handle unless made persistent. Throws std::runtime_error also when something that
    /// is no segment of this identity has its name.
    static SharedMemory create(const std::string& name, std::size_t size,
                               const std::string& trustee,
                               ImplementationSpecifications implementation);

    /// The same for a segment that appears with its contents, as large as they are. It takes no
    /// address space until `getPointer` is called, which throws std::runtime_error when the segment
    /// has been removed by then. That call changes the handle, though it is const.
    static SharedMemory createFilled(const std::string& name, std::string_view contents,
                                     const std::string& trustee,
                                     ImplementationSpecifications implementation);

    /// Attaches to the first `size` bytes of a segment. Not attached when there is none, or when
    /// the one there is smaller or is not to be trusted.
    ///
    /// Among System V segments an empty trustee asks for the caller's private one, and if there is
    /// none for the one made for the first of the caller's groups, in ascending order of their
    /// names, that has one; `getTrustee` tells which.
    static SharedMemory find(const std::string& name, std::size_t size, const std::string& trustee,
                             ImplementationSpecifications implementation);

    /// Attaches to the segment, making it when it is missing: always attached. Throws
    /// std::runtime_error also when the one there cannot be attached to.
    static SharedMemory createOrFind(const std::string& name, std::size_t size,
                                     const std::string& trustee,
                                     ImplementationSpecifications implementation);

    /// A copy of the first `size` bytes of the segment that `find` would attach to; nothing where
    /// it would not be attached. A segment that is read but once is read cheaper so.
    ///
    /// The bytes are copied in no particular order and not at one moment: of what others write
    /// meanwhile, any part may be missing.
    static std::optional<std::string> read(const std::string& name, std::size_t size,
                                           const std::string& trustee,
                                           ImplementationSpecifications implementation);

    /// A handle that is not attached.
    SharedMemory() noexcept;

    /// A moved-from handle is not attached.
    SharedMemory(SharedMemory&& other) noexcept;

    /// Takes over the other's segment and lets its own go as the destructor does.
    SharedMemory& operator=(SharedMemory&& other) noexcept;

    SharedMemory(const SharedMemory&) = delete;
    SharedMemory& operator=(const SharedMemory&) = delete;

    /// Detaches. Removes the segment's name if the handle made the segment and not made it
    /// persistent, or was marked for deletion; processes attached to it keep their bytes. A
    /// segment of that name that somebody made since is left alone.
    ~SharedMemory();

    bool isAttached() const noexcept;

    /// Whether this handle, in this process, made the segment.
    bool isCreator() const noexcept;

    /// The segment's first byte, readable and writable, aligned to a page; null when not attached.
    /// Valid for as long as the handle is attached.
    void* getPointer() const;

    /// Has these bytes written over the segment's first ones when this handle removes it, for those
    /// who are attached to it then; a single one is written at once. Nothing is written to another
    /// segment that has the name by then. Throws std::invalid_argument when they are more than the
    /// segment has; when not attached, does nothing.
    void overwriteAtRemoval(std::string_view bytes);

    /// The size in bytes that the segment was made with, of which at least as many are mapped as
    /// were asked for; 0 when not attached.
    std::size_t getSize() const noexcept;

    /// Whether a process that looks for the name now still comes to this segment: it was not
    /// removed meanwhile. False when not attached.
    bool isStillNamed() const noexcept;

    /// The trustee that the segment was made for; empty for a private one, or when not attached.
    std::string getTrustee() const;

    /// Lets the segment outlive this handle and its process.
    void makePersistent();

    /// Has the segment removed with this handle, also when it did not make it.
    void markForDeletion();

    // Private to the library.
    class __attribute__((visibility("hidden"))) Segment;
    class __attribute__((visibility("hidden"))) Openers;

private:
    explicit SharedMemory(std::unique_ptr<Segment> segment) noexcept;

    std::unique_ptr<Segment> segment;
};

/// The login name of the calling (effective) user, from the user database; the decimal user id
/// where that has no entry. May be called from any thread.
std::string getCurrentUserName();

} // namespace agent::spf::sharedmemory

#pragma GCC visibility pop
