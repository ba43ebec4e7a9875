#pragma once

#include <string>
#include <sys/types.h>

namespace agent::spf::sharedmemory {

/// What the platform calls the segment of one identity: a name together with its trustee, or with
/// the user where there is none. Different identities never share a segment.
struct SegmentName {
    /// A name that the platform accepts.
    std::string platformName;

    /// Empty where the platform's name tells the identity by itself. Otherwise that name is a
    /// hash, and every segment under it carries these bytes after the caller's own, as the sign
    /// that it was made for this identity and not for another of the same hash.
    std::string trailer;
};

SegmentName segmentNameOf(const std::string& name, const std::string& trustee, uid_t user);

} // namespace agent::spf::sharedmemory
