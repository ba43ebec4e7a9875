#pragma once

#include <fcntl.h>
#include <string>
#include <utility>

namespace foundation::os {

/// Where a file is: a path, or a name inside a folder that is held open, whose path may lead
/// somewhere else by the time it is used.
struct PathAt {
    // NOLINTNEXTLINE(google-explicit-constructor): wherever this is wanted, a path is one
    PathAt(std::string path)
        : name(std::move(path)) {}
    PathAt(int folder, std::string name)
        : folder(folder)
        , name(std::move(name)) {}

    /// That of the folder that this one is in.
    PathAt parent() const {
        const auto separator = name.rfind('/');
        return {folder, separator == std::string::npos ? "." : name.substr(0, separator + 1)};
    }

    /// That beside this one that has another last name.
    PathAt sibling(const std::string& other) const {
        return {folder, name.substr(0, name.rfind('/') + 1) + other};
    }

    int folder = AT_FDCWD;
    std::string name;
};

} // namespace foundation::os
