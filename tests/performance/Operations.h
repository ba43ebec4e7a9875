#pragma once

#include "tests/support/TestAccounts.h"

#include <cstddef>
#include <functional>
#include <set>
#include <string>
#include <vector>

namespace performance {

using Trustees = std::set<std::string>;

/// An operation of the registry whose system calls are counted.
struct Operation {
    /// What it does, a slash, and how many entries, or rows of a table, are there already.
    std::string name;
    /// How many entries another process publishes meanwhile.
    std::size_t others;
    /// Whether the other process shares them with `friends`, and it matters of which groups this
    /// user is a member. Only root can choose that.
    bool concernsGroups;
    std::function<void()> perform;
};

/// The group tag of all entries, and the selected key of the first that the other process
/// publishes.
inline const std::string tag = "benchmark";
inline const std::string firstKey = "key 0";

inline const Trustees nobody;
inline const Trustees friends{tests::accounts::friends};

std::vector<Operation> entryOperations();
std::vector<Operation> sharingOperations();
std::vector<Operation> arrayOperations();
std::vector<Operation> monitorOperations();

/// Performs the operation twice, the second time between two marks; what is done on first use only
/// stays out. `prepare` comes before each, outside the marks.
void measure(const std::function<void()>& prepare, const std::function<void()>& operation);
void measure(const std::function<void()>& operation);

/// Throws std::runtime_error unless it is true: what went wrong is not worth counting.
void demand(bool isTrue, const char* what);

/// Has a process publish an entry under `firstKey`, share it, and die.
void leaveDeadEntry(const Trustees& trustees);

} // namespace performance
