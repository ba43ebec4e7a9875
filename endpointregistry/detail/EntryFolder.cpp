#include "endpointregistry/detail/EntryFolder.h"

#include "endpointregistry/detail/GroupFiles.h"
#include "endpointregistry/detail/LockedFileImpl.h"
#include "endpointregistry/detail/LockingOpen.h"
#include "endpointregistry/detail/ParentPath.h"
#include "endpointregistry/detail/StaleFile.h"
#include "foundation/os/FileBytes.h"
#include "foundation/os/GroupDirectory.h"
#include "foundation/paths/UsersFolder.h"

#include <cerrno>
#include <chrono>
#include <fcntl.h>
#include <memory>
#include <string_view>
#include <sys/stat.h>
#include <unistd.h>
#include <utility>

namespace agent::spf::endpointregistry {

using namespace std::chrono_literals;

namespace {

/// Of a file in the folder of private entries, or of the folder itself with a trailing "/".
std::string pathOf(const std::string& base, std::string_view name) {
    constexpr std::string_view parent = EntryFolder::parent;
    std::string path;
    path.reserve(base.size() + parent.size() + 1 + name.size());
    return path.append(base).append(parent).append(1, '/').append(name);
}

} // namespace

const OpenFolder* EntryFolder::folder() const {
    // That there was none is not remembered: the first entry makes it.
    if (!found) {
        found = group.isNone() ? OpenFolder::open(pathOf(privateBase(), {}))
                               : groupfiles::tryOpenFolder(parent, group);
        if (!found) {
            forget();
        }
    }
    return found ? &*found : nullptr;
}

const std::string& EntryFolder::privateBase() const {
    if (base.empty()) {
        base = privateBasePath();
    }
    return base;
}

void EntryFolder::forget() const {
    found.reset();
    base.clear();
}

bool EntryFolder::isHeldAtItsPath(const std::string& name) const {
    return openAndShareLock(pathOf(privateBase(), name)).error == EWOULDBLOCK;
}

std::optional<foundation::os::FileIdentity> EntryFolder::identity() const {
    const OpenFolder* const open = folder();
    return open != nullptr ? open->identity() : std::nullopt;
}

std::vector<std::string> EntryFolder::names(const NameTest& isWanted) const {
    const OpenFolder* const open = folder();
    return open != nullptr ? open->names(isWanted) : std::vector<std::string>();
}

bool EntryFolder::anyName(const NameTest& isWanted) const {
    const OpenFolder* const open = folder();
    return open != nullptr && open->anyName(isWanted);
}

EntryFolder::Publisher EntryFolder::publisherOf(const std::string& name) const {
    const OpenFolder* const open = folder();
    if (open == nullptr) {
        return Publisher::vanished;
    }
    const int error = openAndShareLock(open->at(name)).error;
    failIfNotAsked(error, *open, name);
    switch (error) {
    case ENOENT:
        return Publisher::vanished;
    case EWOULDBLOCK:
        return Publisher::alive;
    default:
        return Publisher::dead;
    }
}

std::optional<foundation::os::FileIdentity> EntryFolder::identityOf(const std::string& name) const {
    const OpenFolder* const open = folder();
    return open != nullptr ? foundation::os::identityAt(open->at(name)) : std::nullopt;
}

void EntryFolder::tellReady(const std::string& name) const noexcept {
    try {
        if (const OpenFolder* const open = folder()) {
            // By name, for that is how watchers are told of it.
            const foundation::os::PathAt where = open->at(name);
            ::utimensat(where.folder, where.name.c_str(), nullptr, AT_SYMLINK_NOFOLLOW);
        }
    } catch (...) { // NOLINT(bugprone-empty-catch): as the header says
    }
}

LockedFile EntryFolder::createLocked(const std::string& name, std::string_view contents) const {
    if (const OpenFolder* const open = group.isNone() ? folder() : nullptr) {
        auto impl = std::make_unique<LockedFile::Impl>(name, *open);
        if (impl->getLockError() != ENOENT) {
            return LockedFile::Impl::wrap(std::move(impl));
        }
        // Somebody has removed the folder since it was opened.
        forget();
    }
    return groupfiles::createAndTryLock(name, parent, group, contents);
}

std::optional<std::string> EntryFolder::contentsOfLiving(const std::string& name,
                                                         std::size_t size) const {
    // Where nothing can be shared, there is no entry to ask for; that is no error here.
    const bool canBeThere =
        group.isNone() || ::access(foundation::paths::sharedFolder().c_str(), F_OK) == 0;
    const OpenFolder* const open = canBeThere ? folder() : nullptr;
    if (open == nullptr) {
        return std::nullopt;
    }
    const foundation::os::FileDescriptor file = openIfHeld(open->at(name));
    failIfNotAsked(errno, *open, name);
    struct stat status {};
    if (!file || ::fstat(file.get(), &status) != 0 || !S_ISREG(status.st_mode) ||
        static_cast<std::size_t>(status.st_size) != size) {
        return std::nullopt;
    }
    // Who has left the group may still write to the folder that they once made.
    if (const auto id = group.id(); id && !foundation::os::isUsableByGroup(status, *id)) {
        return std::nullopt;
    }
    return foundation::os::readFirst(file.get(), size);
}

bool EntryFolder::clearIfStale(const std::string& name, const std::function<bool()>& removeData,
                               std::chrono::milliseconds timeout) const {
    // As a rule it lives, and nothing else is asked of the folder.
    if (!found && group.isNone() && isHeldAtItsPath(name)) {
        return false;
    }
    const OpenFolder* const open = folder();
    if (open == nullptr) {
        return true;
    }
    // Do not wait twice for the same holder, with every other dead entry.
    StaleFile file(name, *open, isFolderBusy ? 0ms : timeout);
    isFolderBusy = isFolderBusy || file.finding() == StaleFile::Finding::busy;
    if (file.finding() == StaleFile::Finding::stale && removeData()) {
        file.remove();
    }
    return file.finding() != StaleFile::Finding::inUse;
}

} // namespace agent::spf::endpointregistry
