#include "endpointregistry/detail/ParentPath.h"

#include "endpointregistry/EntryName.h"
#include "endpointregistry/Folders.h"
#include "endpointregistry/Loggers.h"
#include "fl/i18n/UstringConversion.h"
#include "foundation/paths/CorvantisPath.h"

#include <stdexcept>
#include <unistd.h>

namespace agent::spf::endpointregistry {

namespace {

using foundation::log::severity;

std::string getPrivateFolderPath(const std::string& parent, bool create) {
    std::string path = privateBasePath();
    path.reserve(path.size() + parent.size() + 1);
    path.append(parent).append("/");
    if (create) {
        createFolder(path);
    }
    return path;
}

std::string getTrusteeFolderPath(const std::string& parent, const std::string& trustee,
                                 bool create) {
    const std::string shared = getSharedFolderPath();
    if (::access(shared.c_str(), F_OK) != 0) {
        getLogger().log(severity::error, "getParentPath(): ", shared, " folder does not exist");
        throw std::runtime_error("Error: " + shared + " folder does not exist");
    }
    const std::string top = shared + "/Corvantis/";
    const std::string middle = top + parent + "/";
    std::string path = middle + hashString(trustee) + "/";
    if (create) {
        createFolder(top);
        makePublic(top);
        createFolder(middle);
        makePublic(middle);
        createFolder(path);
        setTrustee(path, trustee);
    }
    return path;
}

} // namespace

std::string privateBasePath() {
    // The path service has made the base, or made sure that it can be trusted.
    return fl::i18n::ustring_to_utf8(
               foundation::paths::getCorvantisPath(foundation::paths::LocationHint::PrivateBase)) +
           "/";
}

std::string parentPathOf(const std::string& parent, const std::string& trustee, bool create) {
    return trustee.empty() ? getPrivateFolderPath(parent, create)
                           : getTrusteeFolderPath(parent, trustee, create);
}

} // namespace agent::spf::endpointregistry
