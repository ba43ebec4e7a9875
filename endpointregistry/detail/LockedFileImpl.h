#pragma once

#include "endpointregistry/LockedFile.h"
#include "endpointregistry/detail/GroupFolder.h"
#include "endpointregistry/detail/LockedDescriptor.h"
#include "endpointregistry/detail/LockingOpen.h"
#include "foundation/os/PathAt.h"

#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <sys/stat.h>
#include <sys/types.h>
#include <utility>

namespace agent::spf::endpointregistry {

/// The state behind a `LockedFile`: locked from construction on, or never.
class LockedFile::Impl {
public:
    Impl(std::string name, const std::string& parent, std::string trustee, bool isExclusive,
         Waiting waiting);

    /// In a group's folder: a file that another member of the group made is used as it is,
    /// and one that does not belong to the group is an error, std::runtime_error.
    Impl(std::string name, GroupFolder folder, std::string trustee, bool isExclusive,
         Waiting waiting, std::string_view contents);

    /// A new file in a private folder that is open at the moment, without waiting. The file's path
    /// is what the folder's was.
    Impl(std::string name, const OpenFolder& openFolder);
    ~Impl();

    Impl(const Impl&) = delete;
    Impl& operator=(const Impl&) = delete;

    void markForDeletion() { deleteOnDestruction = true; }
    void makePersistent() { deleteOnDestruction = false; }
    bool isLocked() const { return static_cast<bool>(lock); }
    /// Whether everybody else comes to the same file by the path, or to the same folder where there
    /// is no lock.
    bool isStillNamed() const;
    int getLockError() const { return lockError; }
    /// The process that kept the lock for longer than was waited; 0 when it is not known.
    pid_t getHolder() const { return holder; }
    std::string getTrustee() const;

    /// The public face of such a state, for the locks of records and tables: they are kept away
    /// from the numbers of the standard streams.
    static LockedFile wrap(std::unique_ptr<Impl> impl) {
        impl->lock.lift();
        return LockedFile(std::move(impl));
    }

    /// Removes the file at `where`; one that cannot be removed is logged under its path.
    static void removeFile(const foundation::os::PathAt& where, const std::string& path);

private:
    std::string findParentFolder(const std::string& parent) const;
    LockingOpen openAt(const foundation::os::PathAt& where, Waiting waiting,
                       std::string_view contents) const;
    LockingOpen openByPath(Waiting waiting, std::string_view contents) const;
    LockedDescriptor lockFile(Waiting waiting, std::string_view contents);
    LockedDescriptor keep(LockingOpen opened, Waiting waiting);
    void examineGroupFile(const struct stat& status) const;
    foundation::os::PathAt where() const;
    bool isOursToRemove() const;
    bool isReplaced() const;
    void unlockAndCloseFile() noexcept;

    bool isExclusive;
    bool deleteOnDestruction;
    int lockError = 0;
    pid_t holder = 0;
    std::string name;
    std::string trustee;
    std::optional<GroupFolder> folder;
    std::string parentPath;
    std::optional<foundation::os::FileIdentity> identity;
    LockedDescriptor lock;
};

} // namespace agent::spf::endpointregistry
