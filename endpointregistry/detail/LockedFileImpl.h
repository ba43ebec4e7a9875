#pragma once

#include "endpointregistry/LockedFile.h"
#include "endpointregistry/detail/LockedDescriptor.h"

#include <string>

namespace agent::spf::endpointregistry {

/// The state behind a `LockedFile`: locked from construction on, or never.
class LockedFile::Impl {
public:
    Impl(std::string name, const std::string& parent, std::string trustee, bool isExclusive,
         bool waitForLock);
    ~Impl();

    Impl(const Impl&) = delete;
    Impl& operator=(const Impl&) = delete;

    void markForDeletion() { deleteOnDestruction = true; }
    void makePersistent() { deleteOnDestruction = false; }
    bool isLocked() const { return static_cast<bool>(lock); }
    int getLockError() const { return lockError; }
    std::string getTrustee() const;

    /// Removes the file at `path`; one that cannot be removed is logged.
    static void removeFile(const std::string& path);

private:
    std::string createParentFolder(const std::string& parent) const;
    LockedDescriptor lockFile();
    bool isOursToRemove() const;
    void unlockAndCloseFile() noexcept;

    bool isExclusive;
    bool deleteOnDestruction;
    bool waitForLock;
    int lockError = 0;
    std::string name;
    std::string trustee;
    std::string parentPath;
    LockedDescriptor lock;
};

} // namespace agent::spf::endpointregistry
