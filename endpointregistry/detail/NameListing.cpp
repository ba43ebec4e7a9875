#include "endpointregistry/detail/NameListing.h"

#include "endpointregistry/Groups.h"
#include "endpointregistry/Loggers.h"
#include "foundation/os/DirectoryStream.h"

#include <cerrno>
#include <stdexcept>
#include <utility>

namespace agent::spf::endpointregistry {

namespace os = foundation::os;

void failToReadFolder(int error) {
    getLogger().log(foundation::log::severity::error,
                    "LockedFile::filterNames(): Failed to open parent folder. (Error ", error, ")");
    throw std::runtime_error("System Error: File system inconsistency");
}

std::vector<std::string> listNames(const os::FilePlace& folder,
                                   const std::vector<std::string>& nameParts) {
    std::vector<std::string> names;
    os::DirectoryStream entries(folder);
    if (!entries) {
        if (errno == ENOENT) {
            return names;
        }
        failToReadFolder(errno);
    }
    while (const char* entry = entries.next()) {
        std::string name = entry;
        if (containsAll(name, nameParts)) {
            names.push_back(std::move(name));
        }
    }
    if (errno != 0) {
        failToReadFolder(errno);
    }
    return names;
}

} // namespace agent::spf::endpointregistry
