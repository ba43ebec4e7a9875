#pragma once

#include <set>
#include <string>
#include <vector>

#pragma GCC visibility push(default)

namespace agent::spf::endpointregistry {

// All functions may be called from any thread; nothing is remembered between calls.

/// The login name of the calling user; the decimal user id where the user database has no entry.
std::string getCurrentUserName();

/// The names of the calling process's supplementary groups, read afresh on every call; a group id
/// without a name is left out.
///
/// Throws std::runtime_error when the system does not tell the groups, std::length_error when it
/// does not even tell their number.
std::set<std::string> getCurrentUserGroups();

/// Returns `trustee` unchanged when it is empty or one of `getCurrentUserGroups()`.
///
/// Throws std::invalid_argument otherwise, with the allowed names in its text.
std::string checkTrustee(const std::string& trustee);

/// Whether every one of `parts` occurs in `text`; true when there are none. Parts may overlap and
/// come in any order.
bool containsAll(const std::string& text, std::vector<std::string> parts);

} // namespace agent::spf::endpointregistry

#pragma GCC visibility pop
