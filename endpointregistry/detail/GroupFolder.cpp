#include "endpointregistry/detail/GroupFolder.h"

#include "endpointregistry/EntryName.h"
#include "endpointregistry/Loggers.h"
#include "endpointregistry/detail/NameListing.h"
#include "endpointregistry/detail/ParentPath.h"
#include "foundation/os/Accounts.h"
#include "foundation/paths/UsersFolder.h"

#include <cerrno>
#include <stdexcept>
#include <utility>

namespace agent::spf::endpointregistry {

namespace {

namespace os = foundation::os;
using foundation::log::severity;
using os::GroupDirectory;
using os::GroupDirectoryError;

constexpr const char* inconsistency = "Endpoint Registry Error: File system inconsistency";

void checkGroup(const os::Group& trustee) {
    if (trustee.id()) {
        return;
    }
    const int error = errno;
    getLogger().log(severity::error, "Utils::setTrustee(): Failed to find the specified group: <",
                    trustee.name(), ">. (Error ", error, ")");
    if (os::saysNoSuchEntry(error)) {
        throw std::invalid_argument(inconsistency);
    }
    throw std::runtime_error(inconsistency);
}

os::GroupDirectoryPath pathOf(const std::string& parent, const os::Group& trustee) {
    return {foundation::paths::sharedFolder(),
            {foundation::paths::sharedTopLevel, parent, hashString(trustee.name())}};
}

[[noreturn]] void fail(const GroupDirectoryError& failure) {
    getLogger().log(severity::error, "GroupFolder: ", failure.what(), ". (Error ", failure.error(),
                    ")");
    throw std::runtime_error(inconsistency);
}

} // namespace

GroupFolder::GroupFolder(GroupDirectory directory)
    : OpenFolder(directory.takeDescriptor(), directory.path())
    , ownGroup(directory.group())
    , identity(directory.identity()) {
}

bool GroupFolder::isStillNamed() const {
    return os::identityAt(path()) == identity;
}

std::optional<GroupFolder> GroupFolder::tryOpen(const std::string& parent,
                                                const os::Group& trustee) {
    try {
        if (auto directory = GroupDirectory::tryOpen(pathOf(parent, trustee), trustee)) {
            return GroupFolder(std::move(*directory));
        }
    } catch (const GroupDirectoryError& failure) {
        checkGroup(trustee);
        if (failure.step() != GroupDirectoryError::Step::open) {
            fail(failure);
        }
        parentPathOf(parent, trustee.name(), false); // Says what else is missing.
        failToReadFolder(failure.error());
    }
    parentPathOf(parent, trustee.name(), false);
    return std::nullopt;
}

GroupFolder GroupFolder::openOrCreate(const std::string& parent, const os::Group& trustee) {
    try {
        if (auto directory = GroupDirectory::tryOpen(pathOf(parent, trustee), trustee)) {
            return GroupFolder(std::move(*directory));
        }
    } catch (const GroupDirectoryError& failure) {
        checkGroup(trustee);
        if (failure.step() != GroupDirectoryError::Step::open) {
            fail(failure);
        }
    }
    return openOrRestore(parent, trustee);
}

GroupFolder GroupFolder::openOrRestore(const std::string& parent, const os::Group& trustee) {
    checkGroup(trustee);                         // Before anything is made.
    parentPathOf(parent, trustee.name(), false); // Says what is missing above.
    try {
        return GroupFolder(GroupDirectory::openOrCreate(pathOf(parent, trustee), trustee));
    } catch (const GroupDirectoryError& failure) {
        fail(failure);
    }
}

} // namespace agent::spf::endpointregistry
