#pragma once

#include "endpointregistry/LockedFile.h"
#include "endpointregistry/detail/OpenFolder.h"
#include "endpointregistry/detail/StaleFile.h"
#include "foundation/os/FileIdentity.h"
#include "foundation/os/Group.h"

#include <chrono>
#include <cstddef>
#include <functional>
#include <optional>
#include <string>
#include <string_view>
#include <sys/types.h>
#include <utility>
#include <vector>

namespace agent::spf::endpointregistry {

/// The entry files of one trustee, as one lookup sees them: their folder is opened once and its
/// group looked up once, when they are first needed. What needs the folder throws as
/// `groupfiles::tryOpenFolder` does.
class EntryFolder {
public:
    /// The registry's sub-folder that holds all entry files.
    static constexpr const char* parent = "qvEndpointRegistry";

    explicit EntryFolder(const std::string& trustee)
        : group(trustee) {}

    explicit EntryFolder(foundation::os::Group trustee)
        : group(std::move(trustee)) {}

    const foundation::os::Group& trustee() const { return group; }

    /// Who was waited for in vain with the trustee's table; see `TableAccess`.
    std::optional<pid_t>& busyTableHolder() const { return tableHolder; }

    /// Where the folder of private entries lies, as `privateBasePath` tells it: examined once for
    /// all that follows.
    const std::string& privateBase() const;

    /// Which folder it is; nothing when there is none.
    std::optional<foundation::os::FileIdentity> identity() const;

    /// The names of the entries that pass the test.
    std::vector<std::string> names(const NameTest& isWanted) const;

    /// As `OpenFolder::anyName`; none passes when there is no folder.
    bool anyName(const NameTest& isWanted) const;

    enum class Publisher { alive, dead, vanished };

    /// What the entry's file says about its publisher; `vanished` when the file is gone. Throws
    /// std::runtime_error when there is no descriptor or memory left to ask.
    Publisher publisherOf(const std::string& name) const;

    /// Which file it is that stands for the entry; nothing when there is none.
    std::optional<foundation::os::FileIdentity> identityOf(const std::string& name) const;

    /// Tells those who watch the folder that an entry of the caller's is complete. They would
    /// notice on their own, only later, so that it does not matter if this fails.
    void tellReady(const std::string& name) const noexcept;

    /// Makes and locks the entry's file, which goes with the object. Not locked when it cannot be
    /// made, or when there is one. That of a group's entry has these contents.
    LockedFile createLocked(const std::string& name, std::string_view contents) const;

    /// What is in the file of an entry whose publisher lives, if it is just so many bytes.
    std::optional<std::string> contentsOfLiving(const std::string& name, std::size_t size) const;

    /// Whether no publisher holds the entry. What a dead one left is removed then: its data, by
    /// `removeData`, which tells whether it could, before its file. Others that clear up are waited
    /// for no longer than the timeout.
    bool clearIfStale(const std::string& name, const std::function<bool()>& removeData,
                      std::chrono::milliseconds timeout = StaleFile::defaultTimeout) const;

private:
    /// Nothing when there is no folder.
    const OpenFolder* folder() const;

    /// Whether a publisher holds the private entry. Asked by the path of its file: to open the
    /// folder for that and close it again would take longer. False where it cannot be asked.
    bool isHeldAtItsPath(const std::string& name) const;

    /// What is known of the folder does not hold any more.
    void forget() const;

    foundation::os::Group group;
    mutable std::string base;
    mutable std::optional<OpenFolder> found;
    /// Whether the last attempt to clear up waited for others in vain.
    mutable bool isFolderBusy = false;
    mutable std::optional<pid_t> tableHolder;
};

} // namespace agent::spf::endpointregistry
