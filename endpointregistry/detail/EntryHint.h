#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <sys/types.h>

namespace agent::spf::endpointregistry {

/// A short way to the private entry of one group tag and selected key: a symbolic link beside the
/// folder of entries, named by the hashes of both, whose target is the name of the entry.
///
/// It is a hint and nothing more. It may be missing, name an entry that is gone, or be something
/// else altogether, at any moment: whoever follows it proves the entry as if it had been listed,
/// and lists the folder of entries where that fails. So hints are made, read and removed without a
/// lock, and one that is lost costs time only.
class EntryHint {
public:
    /// `base` is the private base with a trailing "/", the other two are what `getGroupTagPrefix`
    /// and `getSelectedKeySubstring` return for texts that are not empty.
    EntryHint(const std::string& base, std::string_view tagPrefix, std::string_view keyPart);

    /// What the hint says, which may be any text; nothing when there is no hint. A text that is too
    /// long for the name of a file is cut where it is known to be so.
    std::optional<std::string> read() const;

    /// Has the hint name this entry, in the place of whatever it said before, and makes the folder
    /// of hints when it is missing. Tells whether it could. Only for the publisher of the entry,
    /// once nobody else can publish the same key.
    bool write(const std::string& entry) const;

    /// Removes the hint if it says this. One that is written between the look and the removal is
    /// lost with it.
    void removeIfItSays(const std::string& text) const;

    /// Removes the hint, whatever it says.
    void remove() const noexcept;

    /// Removes the hint that names this entry, if there is one. The entry's name may be any.
    static void removeThatOf(std::string_view entry, const std::string& base);

private:
    std::string path;
};

/// Owner of the hint to an entry that this process publishes: it goes with the object. A forked
/// child's copy removes nothing.
class PublishedHint {
public:
    PublishedHint() noexcept = default;

    /// Writes the hint; owns nothing where that fails.
    PublishedHint(EntryHint hint, const std::string& entry);

    PublishedHint(PublishedHint&& other) noexcept;
    PublishedHint& operator=(PublishedHint&& other) noexcept;
    PublishedHint(const PublishedHint&) = delete;
    PublishedHint& operator=(const PublishedHint&) = delete;
    ~PublishedHint() { remove(); }

private:
    void remove() noexcept;

    std::optional<EntryHint> hint;
    pid_t owner = 0;
};

} // namespace agent::spf::endpointregistry
