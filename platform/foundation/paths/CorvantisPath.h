#pragma once

#include <cstdint>
#include <string>

#pragma GCC visibility push(default)

namespace foundation::paths {

/// What a base folder is wanted for.
enum class LocationHint : std::uint32_t {
    PrivateBase = 0,
};

/// The private base folder of the calling (effective) user on this machine, without a trailing
/// separator. It exists when the function returns: a directory of this user that nobody else can
/// enter, made now if it was missing.
///
/// It lies on a file system of this machine that is emptied at reboot, never in a home folder that
/// may be on a network. Throws std::runtime_error when it cannot be made, or when what stands in
/// its place (a link, a file, another user's folder, a folder open to others) is not to be
/// trusted. May be called from any thread.
std::u16string getCorvantisPath(LocationHint hint);

} // namespace foundation::paths

#pragma GCC visibility pop
