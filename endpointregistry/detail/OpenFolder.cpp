#include "endpointregistry/detail/OpenFolder.h"

#include "endpointregistry/detail/ParentPath.h"
#include "foundation/os/RetryOnInterrupt.h"

#include <cerrno>
#include <fcntl.h>
#include <unistd.h>
#include <utility>

namespace agent::spf::endpointregistry {

namespace os = foundation::os;

std::optional<OpenFolder> OpenFolder::findPrivate(const std::string& parent) {
    std::string path = parentPathOf(parent, {}, false);
    os::FileDescriptor folder(os::retryOnInterrupt(
        [&] { return ::open(path.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC); }));
    if (!folder) {
        if (errno == ENOENT) {
            return std::nullopt;
        }
        failToReadFolder(errno);
    }
    return OpenFolder(std::move(folder), std::move(path));
}

std::vector<std::string> OpenFolder::names(const NameTest& isWanted) const {
    if (std::exchange(hasBeenRead, true) && ::lseek(folder.get(), 0, SEEK_SET) != 0) {
        failToReadFolder(errno);
    }
    os::DirectoryStream entries(folder.get());
    return listNames(entries, isWanted);
}

} // namespace agent::spf::endpointregistry
