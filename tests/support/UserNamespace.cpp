#include "tests/support/UserNamespace.h"

#include <cerrno>
#include <fstream>
#include <string>
#include <system_error>

namespace tests {

namespace {

void write(const std::string& path, const std::string& text) {
    std::ofstream file(path);
    file << text << std::flush;
    if (!file) {
        throw std::system_error(errno, std::generic_category(), "write " + path);
    }
}

std::string onlySelf(unsigned id) {
    return std::to_string(id) + " " + std::to_string(id) + " 1";
}

} // namespace

void mapOnly(uid_t user, gid_t group) {
    write("/proc/self/uid_map", onlySelf(user));
    // Without this the kernel takes no group map from an ordinary user.
    write("/proc/self/setgroups", "deny");
    write("/proc/self/gid_map", onlySelf(group));
}

} // namespace tests
