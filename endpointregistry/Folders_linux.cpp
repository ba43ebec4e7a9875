#include "endpointregistry/Folders.h"

#include <sys/stat.h>

namespace agent::spf::endpointregistry {

std::string getUsersPath() {
    const char* const home = "/home";
    struct stat status {};
    return ::stat(home, &status) == 0 && S_ISDIR(status.st_mode) ? home : "";
}

} // namespace agent::spf::endpointregistry
