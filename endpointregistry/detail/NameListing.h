#pragma once

#include "foundation/os/DirectoryStream.h"

#include <functional>
#include <string>
#include <string_view>
#include <vector>

namespace agent::spf::endpointregistry {

inline bool contains(std::string_view text, std::string_view part) {
    return text.find(part) != std::string_view::npos;
}

/// As `containsAll`, without copies: it is asked of every name in a folder.
bool containsEvery(std::string_view text, const std::vector<std::string>& parts);

/// Whether a name is one of those that are looked for.
using NameTest = std::function<bool(std::string_view name)>;

/// Puts one name of a listing after the other to the test, in its order, until one passes, and
/// tells whether one did; none does when the folder could not be opened because it is not there.
/// Throws std::runtime_error when it cannot be read.
bool anyName(foundation::os::DirectoryStream& entries, const NameTest& isWanted);

/// The names of a listing that pass the test. Else as `anyName`.
std::vector<std::string> listNames(foundation::os::DirectoryStream& entries,
                                   const NameTest& isWanted);

/// Reports a folder of entries that cannot be opened or read: logs, and throws std::runtime_error.
[[noreturn]] void failToReadFolder(int error);

} // namespace agent::spf::endpointregistry
