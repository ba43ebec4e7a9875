#pragma once

#include "foundation/os/FileDescriptor.h"

#include <cstddef>
#include <functional>
#include <optional>
#include <set>
#include <string>
#include <string_view>
#include <sys/types.h>

namespace foundation::os {

/// Something that happened in a watched directory, or to it.
struct DirectoryChange {
    enum class Kind {
        /// A file or directory got this name.
        appeared,
        /// The name is gone.
        vanished,
        /// The attributes of what bears the name were set, or without a name the directory's own.
        touched,
        /// The last descriptor was closed by which the file was made, or opened to be written. Its
        /// locks go a moment later, which may be after this is read. A file that was made without a
        /// name is told by its inode instead of its name.
        closed,
        /// The directory itself was moved or removed. There may be no further changes.
        moved,
        /// Changes that nobody will ever tell: more happened than the system keeps, or something
        /// of which it cannot be told to which file it happened.
        lost,
    };

    Kind kind;
    /// The watch, as `add` returned it; none that there is for what was lost.
    int watch;
    std::string_view name;
    std::optional<ino_t> inode;
};

/// Owner of a queue in which the system notes what happens in directories.
///
/// One thread at a time uses it. A forked child shares the queue with its parent: what one of them
/// reads the other does not get.
class DirectoryWatch {
public:
    /// Empty, with errno set, when the system refuses.
    DirectoryWatch() noexcept;

    explicit operator bool() const noexcept { return static_cast<bool>(queue); }

    /// Readable when there are changes to read.
    int descriptor() const noexcept { return queue.get(); }

    enum class Links { followed, refused };

    /// Watches a directory from now on, and returns the number that its changes bear: the same one
    /// for the same directory. Nothing, with errno set, when it cannot be watched; `Links` is about
    /// the last part of the path.
    std::optional<int> add(const std::string& path, Links links = Links::refused);

    /// Ends a watch; changes that were noted before still come.
    void remove(int watch) noexcept;

    using Taker = std::function<void(const DirectoryChange& change)>;

    /// Hands over the oldest changes that nobody has read, in their order, without waiting, and
    /// returns how many bytes of the queue they took. Names are valid until `take` returns; what is
    /// left when it throws is lost. Throws std::system_error when the queue cannot be read.
    std::size_t read(const Taker& take);

    /// How many bytes of the queue there are to read now.
    std::size_t pending() const noexcept;

    /// Drops all changes that there are to read now.
    void discard() noexcept;

private:
    FileDescriptor queue;
    /// Where a file's inode is not what the queue calls it by.
    std::set<int> withoutInodes;
};

/// Why there is no watch, from the errno value of `DirectoryWatch` or `add`, as
/// `reasonForNoDescriptor` tells it.
std::string reasonForNoWatch(int error);

} // namespace foundation::os
