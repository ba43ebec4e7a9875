#pragma once

#include <memory>
#include <string>
#include <vector>

#pragma GCC visibility push(default)

namespace agent::spf::endpointregistry {

/// Owner of one file in a registry folder, locked for as long as the object lives.
///
/// The lock is an exclusive flock on the open file. It tells every other process whether the owner
/// lives: when the owning process ends, however abruptly, the system drops the lock. A new file
/// appears in its folder already locked, so nobody ever sees a file between its creation and its
/// lock. Locks and processes are matters of one machine: on a network file system they mean
/// nothing.
///
/// `parent` names a sub-folder of the registry; `trustee` is the group that shares the folder, or
/// empty for the calling user's private registry. `name` is one file name inside it. Functions
/// that take a name do not check what it is made of.
///
/// One thread at a time uses an object; the static functions may be called from any thread. A
/// child made by fork() inherits a copy that neither unlocks nor removes anything; until it calls
/// exec or ends, it also keeps the lock from being dropped should its parent die.
class LockedFile {
public:
    /// Makes the file, which must not exist, and locks it; the destructor removes it again.
    /// Not locked when the name is taken, or when the file cannot be made.
    ///
    /// Like `getLock` and `tryLock` it makes the folders that are missing, and throws
    /// std::invalid_argument when `name` or `parent` is empty or the trustee is no group,
    /// std::runtime_error when a folder cannot be made or handed to the trustee. When it throws,
    /// nothing stays open or locked, and no file that it made stays behind.
    static LockedFile createAndTryLock(const std::string& name, const std::string& parent,
                                       const std::string& trustee);

    /// Locks the file, making it when it is missing, and waits for as long as another holder has
    /// it. The file stays when the object goes. Also throws std::runtime_error when the file can
    /// be neither opened nor made.
    static LockedFile getLock(const std::string& name, const std::string& parent,
                              const std::string& trustee);

    /// Locks the file, making it when it is missing; not locked when another holder has it, or
    /// when it can be neither opened nor made. The file stays when the object goes.
    static LockedFile tryLock(const std::string& name, const std::string& parent,
                              const std::string& trustee);

    /// What the three functions above do: `isExclusive` demands that the file be new and removes
    /// it with the object, `waitForLock` waits for another holder instead of giving up.
    LockedFile(const std::string& name, const std::string& parent, const std::string& trustee,
               bool isExclusive, bool waitForLock);

    /// A moved-from object may only be destroyed or assigned to.
    LockedFile(LockedFile&& other) noexcept;

    /// Takes over the other's file and lets its own go as the destructor does.
    LockedFile& operator=(LockedFile&& other) noexcept;

    LockedFile(const LockedFile&) = delete;
    LockedFile& operator=(const LockedFile&) = delete;

    /// Removes the file if it is marked for that, then unlocks it. A file that cannot be removed
    /// is logged and stays; so does another file that somebody put in its place. A lock on
    /// descriptor 0 is kept until the process ends.
    ~LockedFile();

    /// Has the file removed, or not removed, with the object. Call `markForDeletion` only on an
    /// object that is locked.
    void markForDeletion();
    void makePersistent();

    /// Whether this object holds the lock.
    bool isLocked() const;

    /// Why this object does not hold the lock, as an errno value: EWOULDBLOCK when another holder
    /// has it, EEXIST when `createAndTryLock` found the name taken, else what the system said. 0
    /// when it holds the lock.
    int getLockError() const;

    /// The group that the file's folder is shared with; empty for a private one. Throws
    /// std::runtime_error when the folder cannot be examined or its group has no name.
    std::string getTrustee() const;

    // Queries about files that others may own. They throw std::runtime_error when the trustee's
    // shared folder, or the private one, is not there or not to be trusted, and make nothing
    // but the private base folder.

    /// Whether there is a file of this name; with an empty name, whether the folder is there.
    static bool exists(const std::string& name, const std::string& parent,
                       const std::string& trustee);

    /// Whether another holder has the file locked. A missing file counts as locked, since a file
    /// that was listed and is gone was alive a moment ago; an empty name, or a file that cannot
    /// be opened, does not. Any number of processes may ask at once without seeing each other.
    static bool isLocked(const std::string& name, const std::string& parent,
                         const std::string& trustee);

    /// Removes the file, locked or not. A missing file is success; a file that cannot be removed
    /// is logged and stays. An empty name removes nothing. Never throws.
    static void destruct(const std::string& name, const std::string& parent,
                         const std::string& trustee) noexcept;

    /// The folder's path with a trailing "/"; with `create` its missing levels are made, shared
    /// ones opened to everybody and the last one handed to the trustee. Throws std::runtime_error
    /// when the shared folder of this machine is missing or a level cannot be made or handed over
    /// (as a folder of another user cannot), std::invalid_argument when the trustee is no group.
    static std::string getParentPath(const std::string& parent, const std::string& trustee,
                                     bool create);

    /// The names of all files in the folder that contain every one of `nameParts`, in the order
    /// in which the folder lists them, "." and ".." and hidden names included; empty when there is
    /// no such folder. Throws std::runtime_error when the folder cannot be read.
    static std::vector<std::string> filterNames(std::vector<std::string> nameParts,
                                                const std::string& parent,
                                                const std::string& trustee);

    // Private to the library.
    class __attribute__((visibility("hidden"))) Impl;

private:
    explicit LockedFile(std::unique_ptr<Impl> impl) noexcept;

    std::unique_ptr<Impl> impl;
};

} // namespace agent::spf::endpointregistry

#pragma GCC visibility pop
