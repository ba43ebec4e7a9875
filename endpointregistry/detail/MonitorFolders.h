#pragma once

#include "foundation/os/DirectoryWatch.h"

#include <cstddef>
#include <filesystem>
#include <functional>
#include <map>
#include <optional>
#include <set>
#include <string>
#include <vector>

namespace agent::spf::endpointregistry {

/// Logs and throws std::runtime_error, which name the limit that keeps a monitor from watching.
[[noreturn]] void failToWatch(const std::string& reason, int error);

/// The folders that a monitor watches: those of the entries, and so much of the way to them that no
/// folder can appear, vanish or be put in another's place unnoticed.
class MonitorFolders {
public:
    /// Throws std::runtime_error, which names the limit, when the system has no watch left.
    MonitorFolders();

    int descriptor() const noexcept { return watch.descriptor(); }

    /// Watches the folders of these trustees, as they are now or as soon as they are there; what
    /// was watched before and is needed no more is watched no longer. Folders must be read after
    /// this call. Throws also what `LockedFile::getParentPath` does.
    void watchAll(const std::vector<std::string>& trustees);

    /// A change, and what it means.
    struct Change {
        /// Which folder there is under a path may have changed, or nobody knows what happened: all
        /// is to be watched and read anew.
        bool isOfFolders = false;
        /// Of which trustee's folder it is, by its number; nothing if it is of no interest.
        std::optional<std::size_t> trustee;
        const foundation::os::DirectoryChange& detail;
    };

    using Taker = std::function<void(const Change& change)>;

    /// As those of `DirectoryWatch`.
    std::size_t read(const Taker& take);
    std::size_t pending() const noexcept { return watch.pending(); }
    void discard() noexcept { watch.discard(); }

private:
    struct Watched {
        std::optional<std::size_t> trustee;
        /// The names in it on which the way to some folder depends.
        std::set<std::string> children;
    };
    using ByWatch = std::map<int, Watched>;
    using Links = foundation::os::DirectoryWatch::Links;

    void watchPrivate(std::size_t trustee);
    void watchShared(std::size_t trustee, const std::string& name);
    /// Where the folder is that another one is in.
    void watchWayTo(const std::filesystem::path& child, Links links = Links::refused);
    /// Whether there was such a folder. Links are followed where those who read it follow them.
    bool watchEntries(const std::filesystem::path& folder, std::size_t trustee, Links links);
    std::optional<int> add(const std::filesystem::path& folder, Links links);

    foundation::os::DirectoryWatch watch;
    ByWatch watched;
    /// Of `watched`, those that the call in progress has needed.
    ByWatch needed;
};

} // namespace agent::spf::endpointregistry
