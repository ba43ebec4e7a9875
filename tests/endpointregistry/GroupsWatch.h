#pragma once

#include "foundation/os/FileDescriptor.h"
#include "tests/endpointregistry/LockedFileTools.h"
#include "tests/endpointregistry/SharingTools.h"

#include <array>
#include <cerrno>
#include <cstring>
#include <map>
#include <string>
#include <sys/inotify.h>
#include <system_error>
#include <unistd.h>

namespace tests {

/// Notes in order in which groups' folders entries appear, and from which they vanish.
class GroupsWatch {
public:
    explicit GroupsWatch(const Trustees& trustees) {
        for (const std::string& trustee : trustees) {
            const std::string folder = sharedFolder(entryParent, trustee);
            const int number = ::inotify_add_watch(
                watch.get(), folder.c_str(), IN_CREATE | IN_MOVED_TO | IN_DELETE | IN_MOVED_FROM);
            if (number == -1) {
                throw std::system_error(errno, std::generic_category(), folder);
            }
            watched[number] = trustee;
        }
    }

    /// The changes since the last call: "+group" and "-group". Hidden names are left out: under
    /// one of those a file may be prepared that nobody looks for.
    Names changes() {
        Names seen;
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
                    seen.push_back((appeared ? "+" : "-") + watched[event.wd]);
                }
                position += sizeof event + event.len;
            }
        }
        return seen;
    }

private:
    foundation::os::FileDescriptor watch{::inotify_init1(IN_NONBLOCK | IN_CLOEXEC)};
    std::map<int, std::string> watched;
};

} // namespace tests
