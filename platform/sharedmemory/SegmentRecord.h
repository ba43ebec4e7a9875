#pragma once

#include <array>
#include <optional>
#include <string_view>
#include <sys/types.h>

namespace agent::spf::sharedmemory {

/// 128 random bits that tell one segment from every other there ever was.
using SegmentToken = std::array<unsigned char, 16>;

/// Throws std::runtime_error when the system gives no random bits.
SegmentToken makeSegmentToken();

/// What a record says: which segment of the kernel a name stands for. The kernel gives a segment's
/// number out again, after a reboot for instance, so the segment repeats the token behind the
/// caller's bytes.
///
///     offset 0    a mark of 8 bytes
///            8    32 bits     the segment's id; -1 while it is being made
///           12    32 bits     the process that makes it
///           16    16 bytes    the token
///
/// Numbers are in the machine's order: a record means something on this machine only.
struct SegmentRecord {
    static constexpr int noSegment = -1;
    static constexpr std::size_t size = 32;
    using Bytes = std::array<char, size>;

    int id = noSegment;
    pid_t maker = 0;
    SegmentToken token{};

    bool namesSegment() const { return id >= 0; }
    Bytes bytes() const;

    /// Nothing for bytes that are no record.
    static std::optional<SegmentRecord> parse(std::string_view bytes);

    bool operator==(const SegmentRecord&) const = default;
};

} // namespace agent::spf::sharedmemory
