#include "sharedmemory/Failure.h"

#include "foundation/os/Accounts.h"
#include "sharedmemory/Logger.h"

#include <cerrno>
#include <stdexcept>

namespace agent::spf::sharedmemory {

namespace os = foundation::os;
using foundation::log::severity;

void fail(const std::string& what, const std::string& segment, int error) {
    getLogger().log(severity::error, "SharedMemory: ", what, ": <", segment, ">. (Error ", error,
                    ")");
    throw std::runtime_error("Shared memory error: " + what);
}

std::optional<gid_t> groupOf(const os::Group& trustee) {
    if (trustee.isNone()) {
        return std::nullopt;
    }
    if (const auto group = trustee.id()) {
        return group;
    }
    if (!os::saysNoSuchEntry(errno)) {
        fail("cannot look up the trustee", trustee.name(), errno);
    }
    throw std::invalid_argument("Shared memory trustee is not a group: " + trustee.name());
}

} // namespace agent::spf::sharedmemory
