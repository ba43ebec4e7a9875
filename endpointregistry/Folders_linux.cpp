#include "endpointregistry/Folders.h"
#include "foundation/paths/UsersFolder.h"

#include <sys/stat.h>

namespace agent::spf::endpointregistry {

std::string getUsersPath() {
    std::string users = foundation::paths::usersFolder();
    struct stat status {};
    return ::stat(users.c_str(), &status) == 0 && S_ISDIR(status.st_mode) ? users : "";
}

} // namespace agent::spf::endpointregistry
