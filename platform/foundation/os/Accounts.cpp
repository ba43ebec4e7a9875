#include "foundation/os/Accounts.h"

#include <cerrno>
#include <cstddef>
#include <grp.h>
#include <pwd.h>
#include <unistd.h>
#include <vector>

namespace foundation::os {

namespace {

constexpr std::size_t firstBufferSize = 1024;
constexpr std::size_t largestBufferSize = 1048576;

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
        errno = error;
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
    // Not getgrouplist, which takes a database that it cannot read for an empty one.
    const auto isListed =
        lookUp<::group>([group](auto... rest) { return ::getgrgid_r(group, rest...); },
                        [&](const ::group& entry) { return lists(entry, account->name); });
    return isListed || !saysNoSuchEntry(errno) ? isListed : false;
}

std::optional<std::set<std::string>> findOwnGroupNames() {
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
    std::set<std::string> names;
    for (const gid_t id : ids) {
        if (auto name = findGroupName(id)) {
            names.insert(std::move(*name));
        } else if (!saysNoSuchEntry(errno) && errno != ERANGE) {
            return std::nullopt;
        }
    }
    return names;
}

} // namespace foundation::os
