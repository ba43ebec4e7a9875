#include "foundation/paths/UsersFolder.h"

namespace foundation::paths {

std::string usersFolder() {
    return "/home";
}

} // namespace foundation::paths
