#pragma once

#include "endpointregistry/LockedFile.h"
#include "endpointregistry/detail/OpenFolder.h"
#include "foundation/os/FileIdentity.h"
#include "foundation/os/Group.h"

#include <functional>
#include <optional>
#include <string>
#include <vector>

namespace agent::spf::endpointregistry {

/// The entry files of one trustee, as one lookup sees them: their folder is opened once and its
/// group looked up once, when they are first needed. What needs the folder throws as
/// `joined::findFolder` does.
class EntryFolder {
public:
    /// The registry's sub-folder that holds all entry files.
    static constexpr const char* parent = "qvEndpointRegistry";

    explicit EntryFolder(const std::string& trustee)
        : group(trustee) {}

    const foundation::os::Group& trustee() const { return group; }

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

    /// Makes and locks the entry's file, which goes with the object, and with `isNew` fails where
    /// there is one. Not locked when it cannot be had.
    LockedFile lock(const std::string& name, bool isNew) const;

    /// Whether no publisher holds the entry. What a dead one left is removed then: its data, by
    /// `removeData`, before its file.
    bool clearIfStale(const std::string& name, const std::function<void()>& removeData) const;

private:
    /// Nothing when there is no folder.
    const OpenFolder* folder() const;

    foundation::os::Group group;
    mutable std::optional<OpenFolder> found;
    /// Whether the last attempt to clear up waited for others in vain.
    mutable bool isHeldUp = false;
};

} // namespace agent::spf::endpointregistry
