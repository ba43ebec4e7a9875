#pragma once

#include "foundation/os/PathAt.h"

#include <cerrno>
#include <climits>
#include <cstddef>
#include <random>
#include <string>
#include <string_view>
#include <unistd.h>
#include <utility>

namespace foundation::os {

/// What every hidden name begins with under which something is made before it appears.
inline constexpr std::string_view temporaryPrefix = ".nascent-";

/// The name that such a file or folder is to get, as its hidden name tells it; empty for one that
/// does not. It stays the name under which the system tells of an open file.
inline std::string nameBehindTemporary(std::string_view name) {
    const auto end = name.find('-', temporaryPrefix.size());
    return end == std::string_view::npos
               ? std::string()
               : std::string(name.rbegin(), name.rend() - static_cast<std::ptrdiff_t>(end) - 1);
}

/// Owner of such a name: whatever still bears it at the end is removed.
class TemporaryName {
public:
    /// A new name beside `where`; nothing is made under it here. `removalFlags` are those of
    /// unlinkat: AT_REMOVEDIR for a folder.
    TemporaryName(const PathAt& where, int removalFlags)
        : name(where.sibling(randomNameFor(where.name)))
        , removalFlags(removalFlags) {}

    TemporaryName(const TemporaryName&) = delete;
    TemporaryName& operator=(const TemporaryName&) = delete;
    ~TemporaryName() {
        const int before = errno;
        ::unlinkat(name.folder, name.name.c_str(), removalFlags);
        errno = before;
    }

    const PathAt& where() const { return name; }
    const char* get() const { return name.name.c_str(); }

private:
    /// The name that it is to get stands there backwards, so that nobody who searches a folder for
    /// a part of that name comes upon it.
    static std::string randomNameFor(const std::string& where) {
        std::random_device random;
        std::string hidden =
            std::string(temporaryPrefix) + std::to_string(random()) + std::to_string(random());
        const std::string_view last = std::string_view(where).substr(where.rfind('/') + 1);
        if (hidden.size() + 1 + last.size() <= NAME_MAX) {
            hidden.append(1, '-').append(last.rbegin(), last.rend());
        }
        return hidden;
    }

    PathAt name;
    int removalFlags;
};

} // namespace foundation::os
