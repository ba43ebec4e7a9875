#include "foundation/os/DirectoryWatch.h"

#include "foundation/os/HighDescriptor.h"
#include "foundation/os/RetryOnInterrupt.h"
#include "foundation/os/SystemLimits.h"
#include "foundation/os/TemporaryName.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <charconv>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <linux/magic.h>
#include <sys/inotify.h>
#include <sys/ioctl.h>
#include <sys/vfs.h>
#include <system_error>
#include <unistd.h>

namespace foundation::os {

namespace {

using Kind = DirectoryChange::Kind;

/// Opening for reading, and closing what was, is not among them: whoever asks whether a file is
/// locked does that, and would wake everybody.
constexpr std::uint32_t wanted = IN_CREATE | IN_DELETE | IN_MOVED_FROM | IN_MOVED_TO | IN_ATTRIB |
                                 IN_CLOSE_WRITE | IN_DELETE_SELF | IN_MOVE_SELF;

constexpr std::size_t readSize = 32768;

constexpr std::uint32_t ofDirectoryItself = IN_DELETE_SELF | IN_MOVE_SELF | IN_UNMOUNT | IN_IGNORED;

/// The inode that a file is called by that was made without a name, "#" and its number.
std::optional<ino_t> inodeIn(std::string_view name) {
    if (!name.starts_with('#')) {
        return std::nullopt;
    }
    ino_t inode = 0;
    const char* const end = name.data() + name.size();
    const auto [last, error] = std::from_chars(name.data() + 1, end, inode);
    return error == std::errc() && last == end ? std::optional(inode) : std::nullopt;
}

void handOverClosing(int watch, std::string_view name, bool hasInodes,
                     const DirectoryWatch::Taker& take) {
    const auto inode = inodeIn(name);
    const std::string final =
        name.starts_with(temporaryPrefix) ? nameBehindTemporary(name) : std::string(name);
    if (inode ? !hasInodes : final.empty()) {
        take({Kind::lost, watch, {}, {}});
    } else {
        take({Kind::closed, watch, inode ? std::string_view() : final, inode});
    }
}

void handOver(const inotify_event& event, std::string_view name, bool hasInodes,
              const DirectoryWatch::Taker& take) {
    const auto is = [&event](std::uint32_t mask) { return (event.mask & mask) != 0; };
    if (is(IN_Q_OVERFLOW)) {
        take({Kind::lost, event.wd, {}, {}});
    } else if (is(ofDirectoryItself)) {
        take({Kind::moved, event.wd, {}, {}});
    } else if (is(IN_CREATE | IN_MOVED_TO)) {
        take({Kind::appeared, event.wd, name, {}});
    } else if (is(IN_DELETE | IN_MOVED_FROM)) {
        take({Kind::vanished, event.wd, name, {}});
    } else if (is(IN_ATTRIB)) {
        take({Kind::touched, event.wd, name, {}});
    } else if (is(IN_CLOSE_WRITE)) {
        handOverClosing(event.wd, name, hasInodes, take);
    }
}

} // namespace

DirectoryWatch::DirectoryWatch() noexcept
    : queue(liftDescriptor(FileDescriptor(::inotify_init1(IN_NONBLOCK | IN_CLOEXEC)))) {
}

std::optional<int> DirectoryWatch::add(const std::string& path, Links links) {
    const std::uint32_t following = links == Links::refused ? IN_DONT_FOLLOW : 0;
    const int watch =
        ::inotify_add_watch(queue.get(), path.c_str(), wanted | IN_ONLYDIR | following);
    if (watch == -1) {
        return std::nullopt;
    }
    // Overlaid file systems number their files anew.
    struct statfs status {};
    if (::statfs(path.c_str(), &status) != 0 || status.f_type == OVERLAYFS_SUPER_MAGIC) {
        withoutInodes.insert(watch);
    }
    return watch;
}

void DirectoryWatch::remove(int watch) noexcept {
    withoutInodes.erase(watch);
    // Fails for a directory that was removed, which is what is wanted.
    ::inotify_rm_watch(queue.get(), watch);
}

std::size_t DirectoryWatch::read(const Taker& take) {
    // NOLINTNEXTLINE(*-member-init): filled by the system
    alignas(inotify_event) std::array<char, readSize> buffer;
    const ssize_t size =
        retryOnInterrupt([&] { return ::read(queue.get(), buffer.data(), buffer.size()); });
    if (size == -1) {
        if (errno == EAGAIN) {
            return 0;
        }
        throw std::system_error(errno, std::generic_category(), "inotify");
    }
    for (std::size_t position = 0; position < static_cast<std::size_t>(size);) {
        inotify_event event{};
        std::memcpy(&event, buffer.data() + position, sizeof event);
        const char* const name = buffer.data() + position + sizeof event;
        handOver(event, {name, ::strnlen(name, event.len)}, !withoutInodes.contains(event.wd),
                 take);
        position += sizeof event + event.len;
    }
    return static_cast<std::size_t>(size);
}

std::size_t DirectoryWatch::pending() const noexcept {
    int bytes = 0;
    return ::ioctl(queue.get(), FIONREAD, &bytes) == 0 ? static_cast<std::size_t>(bytes) : 0;
}

void DirectoryWatch::discard() noexcept {
    // NOLINTNEXTLINE(*-member-init): filled by the system
    std::array<char, readSize> buffer;
    for (std::size_t rest = pending(); rest > 0;) {
        const ssize_t size =
            retryOnInterrupt([&] { return ::read(queue.get(), buffer.data(), buffer.size()); });
        rest -= size <= 0 ? rest : std::min(rest, static_cast<std::size_t>(size));
    }
}

std::string reasonForNoWatch(int error) {
    // A user has one such limit on the machine and one in each user namespace.
    if (error == ENOSPC) {
        return describeLowest({"fs.inotify.max_user_watches", "user.max_inotify_watches"});
    }
    if (error == EMFILE && hasDescriptorLeft()) {
        return describeLowest({"fs.inotify.max_user_instances", "user.max_inotify_instances"});
    }
    return reasonForNoDescriptor(error);
}

} // namespace foundation::os
