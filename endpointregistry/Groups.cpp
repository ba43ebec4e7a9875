#include "endpointregistry/Groups.h"

#include "endpointregistry/Loggers.h"
#include "endpointregistry/detail/NameListing.h"
#include "foundation/os/Accounts.h"
#include "sharedmemory/SharedMemory.h"

#include <cerrno>
#include <cstddef>
#include <stdexcept>
#include <unistd.h>

namespace agent::spf::endpointregistry {

using foundation::log::severity;

std::string getCurrentUserName() {
    return sharedmemory::getCurrentUserName();
}

std::set<std::string> getCurrentUserGroups() {
    // A failure, -1, becomes a size that no vector has.
    std::vector<gid_t> ids(static_cast<std::size_t>(::getgroups(0, nullptr)));
    const int count = ::getgroups(static_cast<int>(ids.size()), ids.data());
    if (count < 0) {
        const int error = errno;
        getLogger().log(severity::error,
                        "getCurrentUserGroups(): Failed to get user group ids. (Error ", error,
                        ")");
        throw std::runtime_error("System error: Failed to get current user groups");
    }
    std::set<std::string> names;
    if (ids.empty()) {
        return names;
    }
    ids.resize(static_cast<std::size_t>(count));
    for (const gid_t id : ids) {
        if (auto name = foundation::os::findGroupName(id)) {
            names.insert(std::move(*name));
        }
    }
    return names;
}

std::string checkTrustee(const std::string& trustee) {
    if (trustee.empty()) {
        return trustee;
    }
    const std::set<std::string> groups = getCurrentUserGroups();
    if (groups.contains(trustee)) {
        return trustee;
    }
    std::string list;
    for (const std::string& group : groups) {
        list += ", " + group;
    }
    throw std::invalid_argument("endpointregistry::checkTrustee: " + trustee +
                                " is not among the allowed trustees of user" +
                                getCurrentUserName() + ". \nAllowed trustees list: " + list);
}

// NOLINTNEXTLINE(performance-unnecessary-value-param): by value is the published signature
bool containsAll(const std::string& text, std::vector<std::string> parts) {
    return containsEvery(text, parts);
}

} // namespace agent::spf::endpointregistry
