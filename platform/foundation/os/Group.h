#pragma once

#include <optional>
#include <string>
#include <sys/types.h>
#include <utility>
#include <vector>

namespace foundation::os {

/// A group of the operating system as one operation sees it: what the databases say about it is
/// asked once, when it is first needed, and remembered for as long as the object lives. One thread
/// at a time uses an object. An empty name stands for no group.
class Group {
public:
    // NOLINTNEXTLINE(google-explicit-constructor): wherever a group is wanted, its name is one
    Group(std::string name)
        : ownName(std::move(name)) {}

    const std::string& name() const { return ownName; }
    bool isNone() const { return ownName.empty(); }

    /// The group's id; nothing, with errno set as by `findGroupId`.
    std::optional<gid_t> id() const;

    /// Whether what this user makes for the group counts as the group's: root's does, and every
    /// member's. Nothing, with errno set, when the databases cannot be asked.
    std::optional<bool> trusts(uid_t user) const;

private:
    std::string ownName;
    mutable std::optional<gid_t> knownId;
    mutable std::vector<uid_t> trustedUsers;
};

} // namespace foundation::os
