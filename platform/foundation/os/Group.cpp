#include "foundation/os/Group.h"

#include "foundation/os/Accounts.h"

#include <algorithm>

namespace foundation::os {

std::optional<gid_t> Group::id() const {
    if (!knownId) {
        knownId = findGroupId(ownName);
    }
    return knownId;
}

std::optional<bool> Group::trusts(uid_t user) const {
    constexpr uid_t root = 0;
    if (user == root ||
        std::find(trustedUsers.begin(), trustedUsers.end(), user) != trustedUsers.end()) {
        return true;
    }
    const auto group = id();
    const auto isTrusted = group ? isMember(user, *group) : std::nullopt;
    if (isTrusted && *isTrusted) {
        trustedUsers.push_back(user);
    }
    return isTrusted;
}

} // namespace foundation::os
