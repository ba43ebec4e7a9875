#include "sharedmemory/SegmentRecord.h"

#include "sharedmemory/Failure.h"

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <cstring>
#include <unistd.h>

namespace agent::spf::sharedmemory {

namespace {

constexpr std::string_view mark = "qvShmRec";
constexpr std::size_t idOffset = 8;
constexpr std::size_t makerOffset = 12;
constexpr std::size_t tokenOffset = 16;

static_assert(sizeof(int) == makerOffset - idOffset && sizeof(pid_t) == tokenOffset - makerOffset &&
              tokenOffset + sizeof(SegmentToken) == SegmentRecord::size);

} // namespace

SegmentToken makeSegmentToken() {
    SegmentToken token{};
    if (::getentropy(token.data(), token.size()) != 0) {
        fail("cannot get random bits", {}, errno);
    }
    return token;
}

SegmentRecord::Bytes SegmentRecord::bytes() const {
    Bytes written{};
    std::copy(mark.begin(), mark.end(), written.begin());
    std::memcpy(written.data() + idOffset, &id, sizeof id);
    std::memcpy(written.data() + makerOffset, &maker, sizeof maker);
    std::memcpy(written.data() + tokenOffset, token.data(), token.size());
    return written;
}

std::optional<SegmentRecord> SegmentRecord::parse(std::string_view bytes) {
    if (bytes.size() != size || bytes.substr(0, mark.size()) != mark) {
        return std::nullopt;
    }
    SegmentRecord record;
    std::memcpy(&record.id, bytes.data() + idOffset, sizeof record.id);
    std::memcpy(&record.maker, bytes.data() + makerOffset, sizeof record.maker);
    std::memcpy(record.token.data(), bytes.data() + tokenOffset, record.token.size());
    return record;
}

} // namespace agent::spf::sharedmemory
