#pragma once

#include <string>

namespace tests {

/// The folder below which users share, and what the library makes in it.
inline const std::string commonFolder = "/home/Shared";

/// Makes the folder, open to all, unless it is there.
void provideSharedFolder();

} // namespace tests
