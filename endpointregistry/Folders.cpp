#include "endpointregistry/Folders.h"

#include "endpointregistry/Loggers.h"
#include "foundation/os/Accounts.h"

#include <cerrno>
#include <stdexcept>
#include <sys/stat.h>
#include <unistd.h>

namespace agent::spf::endpointregistry {

namespace {

using foundation::log::severity;

constexpr const char* inconsistency = "Endpoint Registry Error: File system inconsistency";

/// Logs `before`, the path, `after` and the error number, and throws.
[[noreturn]] void fail(const char* before, const std::string& path, const std::string& after,
                       int error) {
    getLogger().log(severity::error, before, path, after, error, ")");
    throw std::runtime_error(inconsistency);
}

} // namespace

void createFolder(const std::string& path) {
    if (::mkdir(path.c_str(), S_IRWXU) != 0 && errno != EEXIST) {
        fail("Utils::createFolder(): Failed to create the directory: <", path, ">. (Error ", errno);
    }
}

void makePublic(const std::string& path) {
    constexpr mode_t everybody = S_IRWXU | S_IRWXG | S_IRWXO;
    struct stat status {};
    if (::stat(path.c_str(), &status) != 0) {
        fail("Utils::makePublic(): Failed to stat the path: <", path, ">. (Error ", errno);
    }
    if ((status.st_mode & everybody) == everybody) {
        return;
    }
    if (::chmod(path.c_str(), status.st_mode | everybody) != 0) {
        fail("Utils::makePublic(): Failed to change permissions of: <", path,
             "> to make it public. (Error ", errno);
    }
}

void setTrustee(const std::string& path, const std::string& group) {
    const auto groupId = foundation::os::findGroupId(group);
    if (!groupId) {
        const int error = errno;
        getLogger().log(severity::error,
                        "Utils::setTrustee(): Failed to find the specified group: <", group,
                        ">. (Error ", error, ")");
        throw std::invalid_argument(inconsistency);
    }
    if (::chown(path.c_str(), ::getuid(), *groupId) != 0) {
        fail("Utils::setTrustee(): Failed to change the group of: <", path,
             "> to: <" + group + ">. (Error ", errno);
    }
    struct stat status {};
    if (::stat(path.c_str(), &status) != 0) {
        fail("Utils::setTrustee(): Failed to stat the path: <", path, ">. (Error ", errno);
    }
    if ((status.st_mode & S_IRWXG) == S_IRWXG) {
        return;
    }
    if (::chmod(path.c_str(), status.st_mode | S_IRWXG) != 0) {
        fail("Utils::setTrustee(): Failed to change permissions of: <", path,
             "> to include the group. (Error ", errno);
    }
}

std::string getSharedFolderPath() {
    const std::string users = getUsersPath();
    if (users.empty()) {
        getLogger().log(severity::error,
                        "Utils::getSharedFolderPath: Failed to get the path to Users folder");
        throw std::runtime_error(
            "Utils::getSharedFolderPath:Failed to get the path to Users folder");
    }
    return users + "/Shared";
}

} // namespace agent::spf::endpointregistry
