#include "endpointregistry/LockedFile.h"

#include "endpointregistry/detail/LockedFileImpl.h"
#include "endpointregistry/detail/LockingOpen.h"
#include "endpointregistry/detail/NameListing.h"
#include "endpointregistry/detail/ParentPath.h"

#include <cerrno>
#include <string_view>
#include <unistd.h>
#include <utility>

namespace agent::spf::endpointregistry {

LockedFile LockedFile::createAndTryLock(const std::string& name, const std::string& parent,
                                        const std::string& trustee) {
    return {name, parent, trustee, true, false};
}

LockedFile LockedFile::getLock(const std::string& name, const std::string& parent,
                               const std::string& trustee) {
    return {name, parent, trustee, false, true};
}

LockedFile LockedFile::tryLock(const std::string& name, const std::string& parent,
                               const std::string& trustee) {
    return {name, parent, trustee, false, false};
}

LockedFile::LockedFile(const std::string& name, const std::string& parent,
                       const std::string& trustee, bool isExclusive, bool waitForLock)
    : impl(std::make_unique<Impl>(name, parent, trustee, isExclusive,
                                  waitForLock ? Waiting::forLock() : Waiting::never())) {
}

LockedFile::LockedFile(std::unique_ptr<Impl> impl) noexcept
    : impl(std::move(impl)) {
}

LockedFile::LockedFile(LockedFile&& other) noexcept = default;
LockedFile& LockedFile::operator=(LockedFile&& other) noexcept = default;
LockedFile::~LockedFile() = default;

void LockedFile::markForDeletion() {
    impl->markForDeletion();
}

void LockedFile::makePersistent() {
    impl->makePersistent();
}

bool LockedFile::isLocked() const {
    return impl->isLocked();
}

int LockedFile::getLockError() const {
    return impl->getLockError();
}

std::string LockedFile::getTrustee() const {
    return impl->getTrustee();
}

bool LockedFile::exists(const std::string& name, const std::string& parent,
                        const std::string& trustee) {
    return ::access((getParentPath(parent, trustee, false) + name).c_str(), F_OK) == 0;
}

bool LockedFile::isLocked(const std::string& name, const std::string& parent,
                          const std::string& trustee) {
    if (name.empty()) {
        return false;
    }
    const LockingOpen probe = openAndShareLock(getParentPath(parent, trustee, false) + name);
    return probe.error == EWOULDBLOCK || probe.error == ENOENT;
}

void LockedFile::destruct(const std::string& name, const std::string& parent,
                          const std::string& trustee) noexcept {
    try {
        const std::string folder = getParentPath(parent, trustee, false);
        if (!name.empty()) {
            Impl::removeFile(folder + name, folder + name);
        }
    } catch (...) { // NOLINT(bugprone-empty-catch): a folder that cannot be had has no such file
    }
}

std::string LockedFile::getParentPath(const std::string& parent, const std::string& trustee,
                                      bool create) {
    return parentPathOf(parent, trustee, create);
}

// NOLINTNEXTLINE(performance-unnecessary-value-param): by value is the published signature
std::vector<std::string> LockedFile::filterNames(std::vector<std::string> nameParts,
                                                 const std::string& parent,
                                                 const std::string& trustee) {
    foundation::os::DirectoryStream entries(getParentPath(parent, trustee, false));
    return listNames(entries,
                     [&](std::string_view name) { return containsEvery(name, nameParts); });
}

} // namespace agent::spf::endpointregistry
