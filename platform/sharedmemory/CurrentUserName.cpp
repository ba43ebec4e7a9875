#include "foundation/os/Accounts.h"
#include "sharedmemory/SharedMemory.h"

#include <unistd.h>

namespace agent::spf::sharedmemory {

std::string getCurrentUserName() {
    const uid_t user = ::geteuid();
    return foundation::os::findUserName(user).value_or(std::to_string(user));
}

} // namespace agent::spf::sharedmemory
