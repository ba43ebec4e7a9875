#include "tests/endpointregistry/LockedFileTools.h"

#include "endpointregistry/EntryName.h"
#include "foundation/os/Accounts.h"
#include "foundation/os/DirectoryStream.h"
#include "foundation/os/RetryOnInterrupt.h"
#include "tests/endpointregistry/FoldersTools.h"

#include <algorithm>
#include <cerrno>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <string_view>
#include <sys/file.h>
#include <sys/stat.h>
#include <system_error>
#include <unistd.h>

namespace tests {

namespace {

[[noreturn]] void fail(const std::string& path) {
    throw std::system_error(errno, std::generic_category(), path);
}

} // namespace

std::string privateBase() {
    return "/dev/shm/Corvantis-" + std::to_string(::geteuid());
}

std::string privateFolder(const std::string& parent) {
    return privateBase() + "/" + parent + "/";
}

std::string sharedFolder(const std::string& parent, const std::string& trustee) {
    return "/home/Shared/Corvantis/" + parent + "/" +
           agent::spf::endpointregistry::hashString(trustee) + "/";
}

std::string ownGroup() {
    const auto group = foundation::os::findGroupName(::getegid());
    if (!group) {
        throw std::runtime_error("this process's group has no name");
    }
    return *group;
}

void makeFile(const std::string& path, mode_t mode) {
    const foundation::os::FileDescriptor file(
        ::open(path.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0600));
    if (!file || ::fchmod(file.get(), mode) != 0) {
        fail(path);
    }
}

foundation::os::FileDescriptor openFile(const std::string& path) {
    foundation::os::FileDescriptor file(
        ::open(path.c_str(), O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC));
    if (!file) {
        fail(path);
    }
    return file;
}

bool isHeld(const std::string& path) {
    const foundation::os::FileDescriptor file = openFile(path);
    if (::flock(file.get(), LOCK_SH | LOCK_NB) == 0) {
        return false;
    }
    if (errno != EWOULDBLOCK) {
        fail(path);
    }
    return true;
}

bool canSeeWaiting() {
    return ::access("/proc/locks", R_OK) == 0;
}

bool waitsForLock(pid_t process) {
    std::ifstream locks("/proc/locks");
    for (std::string line; std::getline(locks, line);) {
        // number: -> FLOCK ADVISORY WRITE process ...
        std::istringstream fields(line);
        std::string field;
        pid_t waiting = 0;
        fields >> field >> field;
        if (field == "->" && fields >> field >> field >> field >> waiting && waiting == process) {
            return true;
        }
    }
    return false;
}

bool hasOpen(pid_t process, const std::string& name) {
    std::error_code error;
    const std::filesystem::directory_iterator end;
    std::filesystem::directory_iterator entry("/proc/" + std::to_string(process) + "/fd", error);
    for (; !error && entry != end; entry.increment(error)) {
        std::error_code closed;
        const std::string target = std::filesystem::read_symlink(entry->path(), closed).string();
        if (!closed && target.find("/" + name) != std::string::npos) {
            return true;
        }
    }
    return false;
}

std::size_t countDescriptors() {
    std::size_t count = 0;
    for (int descriptor = 0; descriptor < 1024; ++descriptor) {
        count += ::fcntl(descriptor, F_GETFD) == -1 ? 0U : 1U;
    }
    return count;
}

std::vector<std::string> namesIn(const std::string& folder) {
    foundation::os::DirectoryStream stream(folder);
    if (!stream) {
        fail(folder);
    }
    std::vector<std::string> names;
    while (const char* const name = stream.next()) {
        if (std::string_view(name) != "." && std::string_view(name) != "..") {
            names.emplace_back(name);
        }
    }
    std::sort(names.begin(), names.end());
    return names;
}

} // namespace tests
