#pragma once

#include "foundation/os/FilePlace.h"

#include <cerrno>
#include <random>
#include <string>
#include <string_view>
#include <unistd.h>
#include <utility>

namespace foundation::os {

/// What every hidden name begins with under which something is made before it appears.
inline constexpr std::string_view temporaryPrefix = ".nascent-";

/// Owner of such a name: whatever still bears it at the end is removed.
class TemporaryName {
public:
    /// A new name beside `place`; nothing is made under it here. `removalFlags` are those of
    /// unlinkat: AT_REMOVEDIR for a folder.
    TemporaryName(const FilePlace& place, int removalFlags)
        : name(place.sibling(randomName()))
        , removalFlags(removalFlags) {}

    TemporaryName(const TemporaryName&) = delete;
    TemporaryName& operator=(const TemporaryName&) = delete;
    ~TemporaryName() {
        const int before = errno;
        ::unlinkat(name.folder, name.name.c_str(), removalFlags);
        errno = before;
    }

    const FilePlace& place() const { return name; }
    const char* get() const { return name.name.c_str(); }

private:
    static std::string randomName() {
        std::random_device random;
        return std::string(temporaryPrefix) + std::to_string(random()) + std::to_string(random());
    }

    FilePlace name;
    int removalFlags;
};

} // namespace foundation::os
