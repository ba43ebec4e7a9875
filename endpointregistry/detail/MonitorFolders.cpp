#include "endpointregistry/detail/MonitorFolders.h"

#include "endpointregistry/Loggers.h"
#include "endpointregistry/detail/EntryFolder.h"
#include "endpointregistry/detail/ParentPath.h"
#include "foundation/paths/UsersFolder.h"

#include <cerrno>
#include <stdexcept>
#include <utility>

namespace agent::spf::endpointregistry {

namespace {

namespace fs = std::filesystem;
using Kind = foundation::os::DirectoryChange::Kind;

/// The path of a trustee's entries, without a slash at its end.
fs::path folderOf(const std::string& trustee) {
    return fs::path(parentPathOf(EntryFolder::parent, trustee, false)).parent_path();
}

} // namespace

void failToWatch(const std::string& reason, int error) {
    getLogger().log(foundation::log::severity::error,
                    "EndpointMonitor(): Failed to watch: ", reason, ". (Error ", error, ")");
    throw std::runtime_error("Endpoint Registry Error: The system allows no further watch: " +
                             reason);
}

MonitorFolders::MonitorFolders() {
    if (!watch) {
        const int error = errno;
        failToWatch(foundation::os::reasonForNoWatch(error), error);
    }
}

void MonitorFolders::watchAll(const std::vector<std::string>& trustees) {
    needed.clear();
    for (std::size_t number = 0; number < trustees.size(); ++number) {
        if (trustees[number].empty()) {
            watchPrivate(number);
        } else {
            watchShared(number, trustees[number]);
        }
    }
    for (const auto& [number, ignored] : watched) {
        if (!needed.contains(number)) {
            watch.remove(number);
        }
    }
    watched = std::exchange(needed, {});
}

// On every way the upper folder comes first: what appears in it from then on is told.

void MonitorFolders::watchPrivate(std::size_t trustee) {
    fs::path folder = folderOf({}); // Makes the base where it is missing.
    watchWayTo(folder);
    if (watchEntries(folder, trustee, Links::followed)) {
        // For as long as there is something in the base, nobody can remove it, and it tells itself
        // when it is moved. So nobody has to watch /dev/shm, where much happens.
        return;
    }
    watchWayTo(folder.parent_path(), Links::followed);
    folder = folderOf({});
    watchWayTo(folder);
    watchEntries(folder, trustee, Links::followed);
}

void MonitorFolders::watchShared(std::size_t trustee, const std::string& name) {
    // The shared folder itself is the administrator's, who may have put a link there.
    const fs::path shared = foundation::paths::sharedFolder();
    watchWayTo(shared, Links::followed);
    const fs::path folder = folderOf(name);
    const fs::path parent = folder.parent_path();
    watchWayTo(parent.parent_path(), Links::followed);
    watchWayTo(parent);
    watchWayTo(folder);
    watchEntries(folder, trustee, Links::refused);
}

void MonitorFolders::watchWayTo(const fs::path& child, Links links) {
    if (const auto number = add(child.parent_path(), links)) {
        const std::string name = child.filename();
        needed[*number].children.insert(name);
        watched[*number].children.insert(name);
    }
}

bool MonitorFolders::watchEntries(const fs::path& folder, std::size_t trustee, Links links) {
    const auto number = add(folder, links);
    if (number) {
        needed[*number].trustee = trustee;
        watched[*number].trustee = trustee;
    }
    return number.has_value();
}

std::optional<int> MonitorFolders::add(const fs::path& folder, Links links) {
    auto number = watch.add(folder, links);
    const int error = errno;
    if (!number && (error == ENOSPC || error == ENOMEM)) {
        failToWatch(foundation::os::reasonForNoWatch(error), error);
    }
    // One that is missing, or not to be read, is found so by whoever reads it, too.
    return number;
}

std::size_t MonitorFolders::read(const Taker& take) {
    return watch.read([&](const foundation::os::DirectoryChange& change) {
        const auto found = watched.find(change.watch);
        if (change.kind == Kind::lost) {
            take({true, std::nullopt, change});
        } else if (found != watched.end()) {
            const auto& [trustee, children] = found->second;
            // Whether a folder is to be trusted depends on its attributes.
            const bool isOfItself =
                change.kind == Kind::moved || (change.kind == Kind::touched && change.name.empty());
            const bool isOfFolders = isOfItself || children.contains(std::string(change.name));
            take({isOfFolders, trustee, change});
        }
    });
}

} // namespace agent::spf::endpointregistry
