#include "foundation/os/SystemLimits.h"

#include "foundation/os/FileDescriptor.h"

#include <algorithm>
#include <cerrno>
#include <fcntl.h>
#include <fstream>
#include <optional>
#include <sys/resource.h>

namespace foundation::os {

namespace {

/// Nothing where the system does not tell.
std::optional<unsigned long> valueOf(std::string limit) {
    std::replace(limit.begin(), limit.end(), '.', '/');
    std::ifstream file("/proc/sys/" + limit);
    unsigned long value = 0;
    return file >> value ? std::optional(value) : std::nullopt;
}

} // namespace

std::string describeLowest(const std::vector<std::string>& limits) {
    std::string name = limits.front();
    std::optional<unsigned long> lowest;
    for (const std::string& limit : limits) {
        const auto value = valueOf(limit);
        if (value && (!lowest || *value < *lowest)) {
            name = limit;
            lowest = value;
        }
    }
    return name + " (" + (lowest ? std::to_string(*lowest) : "?") + ")";
}

bool hasDescriptorLeft() noexcept {
    const FileDescriptor any(::open("/", O_PATH | O_CLOEXEC));
    return any || errno != EMFILE;
}

std::string reasonForNoDescriptor(int error) {
    rlimit limit{};
    if (error == EMFILE && ::getrlimit(RLIMIT_NOFILE, &limit) == 0) {
        return "RLIMIT_NOFILE (" + std::to_string(limit.rlim_cur) + ")";
    }
    if (error == ENFILE) {
        return describeLowest({"fs.file-max"});
    }
    return "error " + std::to_string(error);
}

} // namespace foundation::os
