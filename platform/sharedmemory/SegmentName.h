#pragma once

#include <array>
#include <cstddef>
#include <string>
#include <sys/types.h>

namespace agent::spf::sharedmemory {

/// What the platform calls the segment of one identity: a name together with its trustee, or with
/// the user where there is none. Different identities never share a segment.
struct SegmentName {
    /// A name that the platform accepts.
    std::string platformName;

    /// Empty where the platform's name tells the identity by itself. Otherwise that name is a
    /// hash, and every segment under it carries these bytes after the caller's own, as the proof
    /// that it was made for this identity and not for another of the same hash.
    std::string proof;
};

SegmentName segmentNameOf(const std::string& name, const std::string& trustee, uid_t user);

/// The bytes that tell an identity from every other.
std::string segmentIdentityOf(const std::string& name, const std::string& trustee, uid_t user);

/// How many numbers an identity may be known by where the platform's names are numbers.
inline constexpr std::size_t segmentKeyCount = 16;

/// Those numbers, all different and none 0. Other identities may have some of them, too.
std::array<int, segmentKeyCount> segmentKeysOf(const std::string& identity);

} // namespace agent::spf::sharedmemory
