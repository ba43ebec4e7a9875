#pragma once

#include <cstdlib>
#include <filesystem>
#include <stdexcept>
#include <string>
#include <sys/stat.h>
#include <system_error>

namespace tests {

/// A folder of the test's own that everybody may enter and write, removed with its contents.
class ScratchFolder {
public:
    ScratchFolder() {
        if (::mkdtemp(folder.data()) == nullptr || ::chmod(folder.c_str(), 0777) != 0) {
            throw std::system_error(errno, std::generic_category(), folder);
        }
    }
    ~ScratchFolder() {
        std::error_code ignored;
        std::filesystem::remove_all(folder, ignored);
    }

    ScratchFolder(const ScratchFolder&) = delete;
    ScratchFolder& operator=(const ScratchFolder&) = delete;

    /// The path of that name in the folder.
    std::string operator/(const std::string& name) const { return folder + "/" + name; }
    const std::string& path() const { return folder; }

private:
    std::string folder = "/dev/shm/scratch-XXXXXX";
};

inline struct stat statusOf(const std::string& path) {
    struct stat status {};
    if (::lstat(path.c_str(), &status) != 0) {
        throw std::system_error(errno, std::generic_category(), path);
    }
    return status;
}

/// The permissions with the set-id and sticky bits.
inline mode_t modeOf(const std::string& path) {
    return statusOf(path).st_mode & 07777U;
}

/// Makes a folder of exactly this mode, whatever the umask.
inline void makeFolder(const std::string& path, mode_t mode) {
    if (::mkdir(path.c_str(), 0700) != 0 || ::chmod(path.c_str(), mode) != 0) {
        throw std::system_error(errno, std::generic_category(), path);
    }
}

/// Sets the umask of the process for as long as it lives.
class Umask {
public:
    explicit Umask(mode_t mask)
        : before(::umask(mask)) {}
    ~Umask() { ::umask(before); }

    Umask(const Umask&) = delete;
    Umask& operator=(const Umask&) = delete;

private:
    mode_t before;
};

} // namespace tests
