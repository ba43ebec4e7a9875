#pragma once

#include "benchmarks/Floor.h"

#include <cstddef>
#include <string>

namespace benchmarks {

/// The group tag of every entry.
inline const std::string groupTag = "benchmark";

/// The selected key and the data of the entry of a number.
std::string keyOf(std::size_t number);
floor::DataPair dataOf(std::size_t number);

/// A group of this process. Throws std::runtime_error when it has none that has a name.
std::string ownGroup();

/// Raises the number of descriptors that this process may have as far as it may.
void raiseDescriptorLimit();

/// From now on another process publishes exactly so many entries: this user's own where the trustee
/// is empty, else those that it shares with that group. Those before are gone, unless they were the
/// same. Throws std::runtime_error when they cannot be published.
///
/// They are put up without a look for synonyms, which would take a time that grows with the square
/// of their number, and without the private entries that sharing begins with.
void provideOthers(std::size_t count, const std::string& trustee = {});

/// Ends what is provided.
void withdrawOthers();

} // namespace benchmarks
