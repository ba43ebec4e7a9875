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
    return open(parentPathOf(parent, {}, false));
}

std::optional<OpenFolder> OpenFolder::open(const std::string& path) {
    os::FileDescriptor folder(os::retryOnInterrupt(
        [&] { return ::open(path.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC); }));
    if (!folder) {
        if (errno == ENOENT) {
            return std::nullopt;
        }
        failToReadFolder(errno);
    }
    return OpenFolder(std::move(folder), path);
}

std::vector<std::string> OpenFolder::names(const NameTest& isWanted) const {
    rewind();
    os::DirectoryStream entries(folder.get());
    return listNames(entries, isWanted);
}

bool OpenFolder::anyName(const NameTest& isWanted) const {
    rewind();
    os::DirectoryStream entries(folder.get(), os::DirectoryStream::Reading::aLittle);
    return agent::spf::endpointregistry::anyName(entries, isWanted);
}

void OpenFolder::rewind() const {
    if (std::exchange(hasBeenRead, true) && ::lseek(folder.get(), 0, SEEK_SET) != 0) {
        failToReadFolder(errno);
    }
}

} // namespace agent::spf::endpointregistry
