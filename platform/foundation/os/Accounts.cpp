#include "foundation/os/Accounts.h"

#include "foundation/os/FileDescriptor.h"

#include <algorithm>
#include <cerrno>
#include <cstddef>
#include <fcntl.h>
#include <grp.h>
#include <pwd.h>
#include <unistd.h>
#include <vector>

namespace foundation::os {

namespace {

constexpr std::size_t firstBufferSize = 1024;
constexpr std::size_t largestBufferSize = 1048576;

/// Whether the process has a descriptor left; else errno says why not.
bool canOpenDescriptor() {
    return static_cast<bool>(FileDescriptor(::open("/", O_PATH | O_CLOEXEC)));
}

/// Calls `query(&entry, buffer, size, &found)` with growing buffers and returns `read(*found)`, or
/// nothing with errno set to what the query returned.
template<typename Entry, typename Query, typename Read>
auto lookUp(Query query, Read read) -> std::optional<decltype(read(Entry{}))> {
    std::vector<char> buffer(firstBufferSize);
    for (;;) {
        Entry entry{};
        Entry* found = nullptr;
        const int error = query(&entry, buffer.data(), buffer.size(), &found);
        if (error == EINTR) {
            continue;
        }
        if (error == ERANGE && buffer.size() < largestBufferSize) {
            buffer.assign(buffer.size() * 2, '\0');
            continue;
        }
        if (error == 0 && found != nullptr) {
            return read(*found);
        }
        // Without a descriptor some databases answer that there is no such entry.
        const bool isBelievable = !saysNoSuchEntry(error) || canOpenDescriptor();
        errno = isBelievable ? error : errno;
        return std::nullopt;
    }
}

struct User {
    std::string name;
    gid_t primaryGroup;
};

bool lists(const ::group& entry, const std::string& user) {
    for (char** member = entry.gr_mem; *member != nullptr; ++member) {
        if (user == *member) {
            return true;
        }
    }
    return false;
}

/// Some databases tell the groups of a user, but not the users of a group. Only a "yes" counts:
/// a database that cannot be read is an empty one here.
bool isInGroupList(const User& user, gid_t group) {
    constexpr std::size_t most = 65536;
    std::vector<gid_t> groups(most);
    int count = most;
    ::getgrouplist(user.name.c_str(), user.primaryGroup, groups.data(), &count);
    groups.resize(std::min(most, static_cast<std::size_t>(count)));
    return std::find(groups.begin(), groups.end(), group) != groups.end();
}

/// The calling process's supplementary groups; nothing, with errno set, when the system does not
/// tell.
std::optional<std::vector<gid_t>> findOwnGroups() {
    const int most = ::getgroups(0, nullptr);
    if (most < 0) {
        return std::nullopt;
    }
    std::vector<gid_t> ids(static_cast<std::size_t>(most));
    const int count = most == 0 ? 0 : ::getgroups(most, ids.data());
    if (count < 0) {
        return std::nullopt;
    }
    ids.resize(static_cast<std::size_t>(count));
    return ids;
}

} // namespace

std::optional<std::string> findUserName(uid_t user) {
    return lookUp<passwd>([user](auto... rest) { return ::getpwuid_r(user, rest...); },
                          [](const passwd& entry) { return std::string(entry.pw_name); });
}

std::optional<std::string> findGroupName(gid_t group) {
    return lookUp<::group>([group](auto... rest) { return ::getgrgid_r(group, rest...); },
                           [](const ::group& entry) { return std::string(entry.gr_name); });
}

std::optional<gid_t> findGroupId(const std::string& name) {
    return lookUp<::group>([&name](auto... rest) { return ::getgrnam_r(name.c_str(), rest...); },
                           [](const ::group& entry) { return entry.gr_gid; });
}

bool saysNoSuchEntry(int error) {
    // The databases behind the calls disagree about which of these it is.
    return error == 0 || error == ENOENT || error == ESRCH;
}

std::optional<bool> isMember(uid_t user, gid_t group) {
    const auto account =
        lookUp<passwd>([user](auto... rest) { return ::getpwuid_r(user, rest...); },
                       [](const passwd& entry) {
                           return User{entry.pw_name, entry.pw_gid};
                       });
    if (account && account->primaryGroup == group) {
        return true;
    }
    if (!account) {
        return saysNoSuchEntry(errno) ? std::optional(false) : std::nullopt;
    }
    const auto isListed =
        lookUp<::group>([group](auto... rest) { return ::getgrgid_r(group, rest...); },
                        [&](const ::group& entry) { return lists(entry, account->name); });
    if (!isListed && !saysNoSuchEntry(errno)) {
        return std::nullopt;
    }
    return (isListed && *isListed) || isInGroupList(*account, group);
}

bool isInGroup(gid_t group) {
    const auto ids = findOwnGroups();
    return group == ::getegid() || !ids || std::find(ids->begin(), ids->end(), group) != ids->end();
}

std::optional<std::set<std::string>> findOwnGroupNames() {
    const auto ids = findOwnGroups();
    if (!ids) {
        return std::nullopt;
    }
    std::set<std::string> names;
    for (const gid_t id : *ids) {
        if (auto name = findGroupName(id)) {
            names.insert(std::move(*name));
        } else if (!saysNoSuchEntry(errno) && errno != ERANGE) {
            return std::nullopt;
        }
    }
    return names;
}

} // namespace foundation::os
