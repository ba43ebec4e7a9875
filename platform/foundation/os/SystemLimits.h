#pragma once

#include <string>
#include <vector>

namespace foundation::os {

/// Of these limits, which the system tells under /proc/sys, the one with the lowest value, and that
/// value: "fs.inotify.max_user_watches (8192)". "?" stands for values that it does not tell.
std::string describeLowest(const std::vector<std::string>& limits);

/// Whether this process has a descriptor left to open.
bool hasDescriptorLeft() noexcept;

/// Why a descriptor could not be had, from the errno value: which limit is reached, as above, or
/// else "error 13".
std::string reasonForNoDescriptor(int error);

} // namespace foundation::os
