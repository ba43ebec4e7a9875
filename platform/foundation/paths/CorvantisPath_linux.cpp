#include "foundation/paths/CorvantisPath.h"

#include <cerrno>
#include <stdexcept>
#include <string>
#include <sys/stat.h>
#include <unistd.h>

namespace foundation::paths {

namespace {

[[noreturn]] void refuse(const std::string& path, const std::string& why) {
    throw std::runtime_error("The private base folder <" + path + "> " + why);
}

} // namespace

// In /dev/shm, since it is memory of this machine alone and gone at reboot, as locks, process ids
// and shared-memory segments are. It is open to all, so anybody may have put something under our
// name first; once the folder is ours, the sticky bit of /dev/shm keeps others from replacing it.
std::u16string getCorvantisPath(LocationHint /*hint*/) {
    const uid_t user = ::geteuid();
    const std::string path = "/dev/shm/Corvantis-" + std::to_string(user);

    struct stat status {};
    if (::lstat(path.c_str(), &status) != 0) {
        if (errno != ENOENT) {
            refuse(path, "cannot be examined. (Error " + std::to_string(errno) + ")");
        }
        if (::mkdir(path.c_str(), S_IRWXU) != 0 && errno != EEXIST) {
            refuse(path, "cannot be made. (Error " + std::to_string(errno) + ")");
        }
        if (::lstat(path.c_str(), &status) != 0) {
            refuse(path, "cannot be examined. (Error " + std::to_string(errno) + ")");
        }
    }
    if (!S_ISDIR(status.st_mode)) {
        refuse(path, "is not a directory.");
    }
    if (status.st_uid != user) {
        refuse(path, "belongs to another user.");
    }
    if ((status.st_mode & (S_IRWXG | S_IRWXO)) != 0) {
        refuse(path, "is open to other users.");
    }
    return {path.begin(), path.end()}; // All of it is ASCII.
}

} // namespace foundation::paths
