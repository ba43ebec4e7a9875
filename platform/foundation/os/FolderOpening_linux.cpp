#include "foundation/os/FolderOpening.h"

#include "foundation/os/RetryOnInterrupt.h"

#include <fcntl.h>
#include <iterator>
#include <linux/openat2.h>
#include <sys/syscall.h>
#include <unistd.h>

namespace foundation::os {

FileDescriptor openFolder(const PathAt& where) {
    return FileDescriptor(retryOnInterrupt([&] {
        return ::openat(where.folder, where.name.c_str(),
                        O_RDONLY | O_DIRECTORY | O_CLOEXEC | O_NOFOLLOW);
    }));
}

FileDescriptor openThroughNoLink(const PathAt& where, int flags) {
    open_how how{};
    how.flags = static_cast<unsigned>(flags | O_CLOEXEC);
    how.resolve = RESOLVE_NO_SYMLINKS;
    return FileDescriptor(retryOnInterrupt([&] {
        return static_cast<int>(
            ::syscall(SYS_openat2, where.folder, where.name.c_str(), &how, sizeof how));
    }));
}

FileDescriptor openFolderBelow(const PathAt& top, const std::vector<std::string>& levels) {
    // To pass through a folder takes less of a permission than to read it.
    constexpr int passing = O_PATH | O_DIRECTORY | O_CLOEXEC;
    const auto open = [](int folder, const std::string& name, int flags) {
        return FileDescriptor(
            retryOnInterrupt([&] { return ::openat(folder, name.c_str(), flags); }));
    };
    FileDescriptor folder = open(top.folder, top.name, passing);
    for (auto level = levels.begin(); folder && level != levels.end(); ++level) {
        const bool isLast = std::next(level) == levels.end();
        folder = isLast ? openFolder({folder.get(), *level})
                        : open(folder.get(), *level, passing | O_NOFOLLOW);
    }
    return folder;
}

} // namespace foundation::os
