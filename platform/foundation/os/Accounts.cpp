#include "foundation/os/Accounts.h"

#include <cerrno>
#include <cstddef>
#include <grp.h>
#include <pwd.h>
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

} // namespace foundation::os
