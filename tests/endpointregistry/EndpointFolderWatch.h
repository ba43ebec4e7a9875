#pragma once

#include "foundation/os/FileDescriptor.h"

#include <array>
#include <cerrno>
#include <cstring>
#include <string>
#include <sys/inotify.h>
#include <system_error>
#include <unistd.h>
#include <vector>

namespace tests {

/// Notes in order what appears in folders and what vanishes from them.
class FolderWatch {
public:
    explicit FolderWatch(const std::vector<std::string>& folders) {
        for (const std::string& folder : folders) {
            if (::inotify_add_watch(watch.get(), folder.c_str(),
                                    IN_CREATE | IN_MOVED_TO | IN_DELETE | IN_MOVED_FROM) == -1) {
                throw std::system_error(errno, std::generic_category(), folder);
            }
        }
    }

    /// The changes since the last call: "+name" and "-name". Hidden names are left out: under one
    /// of those a file may be prepared that nobody looks for.
    std::vector<std::string> changes() {
        std::vector<std::string> seen;
        alignas(inotify_event) std::array<char, 65536> buffer{};
        for (ssize_t size = ::read(watch.get(), buffer.data(), buffer.size()); size > 0;
             size = ::read(watch.get(), buffer.data(), buffer.size())) {
            const char* position = buffer.data();
            const char* const end = position + size;
            while (position < end) {
                inotify_event event{};
                std::memcpy(&event, position, sizeof event);
                const std::string name = position + sizeof event;
                if (name.substr(0, 1) != ".") {
                    const bool appeared = (event.mask & (IN_CREATE | IN_MOVED_TO)) != 0;
                    seen.push_back((appeared ? "+" : "-") + name);
                }
                position += sizeof event + event.len;
            }
        }
        return seen;
    }

private:
    foundation::os::FileDescriptor watch{::inotify_init1(IN_NONBLOCK | IN_CLOEXEC)};
};

} // namespace tests
