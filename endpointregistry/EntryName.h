#pragma once

#include <string>
#include <utility>

#pragma GCC visibility push(default)

/// The names of registry entries.
///
/// A name is "qvER", the hash of the group tag, the hash of the joined data (first data string
/// followed by the second), "k" and the hash of the selected key, "l" and the length of the joined
/// data in bytes, "p" and the publisher's process id, "v" and the format version. Hashes are in
/// lowercase hexadecimal without leading zeros, so no marker letter occurs in them, and a search
/// is a substring test on a folder's listing.
///
/// All functions may be called from any thread and throw nothing but what the string class throws
/// when a string would be too long or memory is exhausted.
namespace agent::spf::endpointregistry {

/// The 64-bit hash of the text's bytes in lowercase hexadecimal without leading zeros; the empty
/// string for the empty text. The value is part of the format: it is the same in every build.
std::string hashString(const std::string& text);

/// What every name of this group tag begins with; for the empty tag "qvER", which every name
/// begins with.
std::string getGroupTagPrefix(const std::string& groupTag);

/// What every name of this group tag and joined data begins with.
std::string getExtendedPrefix(const std::pair<std::string, std::string>& data,
                              const std::string& groupTag);

/// What every name of this selected key contains; for the empty key "k", which every name contains.
std::string getSelectedKeySubstring(const std::string& selectedKey);

/// The whole name of an entry that the calling process publishes. The trustee does not enter it.
std::string getName(const std::pair<std::string, std::string>& data, const std::string& groupTag,
                    const std::string& selectedKey, unsigned long version,
                    const std::string& trustee);

/// The length of the joined data in bytes, the publisher's process id, and the format version, as
/// the name states them: a name from a folder's listing may state anything. 0 where the name has
/// no such number, the largest unsigned long where its number is larger than that.
unsigned long getLengthFromName(const std::string& name);
unsigned long getPidFromName(const std::string& name);
unsigned long getVersionFromName(const std::string& name);

} // namespace agent::spf::endpointregistry

#pragma GCC visibility pop
