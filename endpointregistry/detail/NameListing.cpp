#include "endpointregistry/detail/NameListing.h"

#include "endpointregistry/Loggers.h"

#include <algorithm>
#include <cerrno>
#include <stdexcept>

namespace agent::spf::endpointregistry {

bool containsEvery(std::string_view text, const std::vector<std::string>& parts) {
    return std::all_of(parts.begin(), parts.end(),
                       [text](const std::string& part) { return contains(text, part); });
}

void failToReadFolder(int error) {
    getLogger().log(foundation::log::severity::error,
                    "LockedFile::filterNames(): Failed to open parent folder. (Error ", error, ")");
    throw std::runtime_error("System Error: File system inconsistency");
}

bool anyName(foundation::os::DirectoryStream& entries, const NameTest& isWanted) {
    if (!entries) {
        if (errno == ENOENT) {
            return false;
        }
        failToReadFolder(errno);
    }
    while (const char* entry = entries.next()) {
        if (isWanted(entry)) {
            return true;
        }
    }
    if (errno != 0 && errno != ENOENT) {
        failToReadFolder(errno);
    }
    return false;
}

std::vector<std::string> listNames(foundation::os::DirectoryStream& entries,
                                   const NameTest& isWanted) {
    std::vector<std::string> names;
    anyName(entries, [&](std::string_view name) {
        if (isWanted(name)) {
            names.emplace_back(name);
        }
        return false;
    });
    return names;
}

} // namespace agent::spf::endpointregistry
