#include "sharedmemory/SegmentName.h"

#include <algorithm>
#include <array>
#include <boost/uuid/name_generator_sha1.hpp>
#include <boost/uuid/uuid_io.hpp>
#include <climits>
#include <string_view>

namespace agent::spf::sharedmemory {

namespace {

/// Which characters are plain: neither "@" nor "~", which the two forms of a file name are told
/// apart by. In a table, since each lookup goes through long names with it.
constexpr auto plainCharacters = [] {
    std::array<bool, UCHAR_MAX + 1> isPlain{};
    for (const char c : std::string_view("abcdefghijklmnopqrstuvwxyz"
                                         "ABCDEFGHIJKLMNOPQRSTUVWXYZ0123456789_-.")) {
        isPlain.at(static_cast<unsigned char>(c)) = true;
    }
    return isPlain;
}();

bool isPlain(std::string_view text) {
    return std::all_of(text.begin(), text.end(),
                       [](char c) { return plainCharacters.at(static_cast<unsigned char>(c)); });
}

boost::uuids::uuid uuidOf(const std::string& identity) {
    const boost::uuids::name_generator_sha1 generate(boost::uuids::ns::oid());
    return generate(identity);
}

std::string ownerOf(const std::string& trustee, uid_t user) {
    return trustee.empty() ? "u" + std::to_string(user) : "g" + trustee;
}

/// The bytes that tell an identity from every other.
std::string identityOf(const std::string& name, const std::string& owner) {
    return owner + '\0' + name;
}

} // namespace

// A person who looks into /dev/shm reads "<name>@u<user id>" or "<name>@g<trustee>"; what does not
// fit there is "~" and the identity's UUID of version 5.
SegmentName segmentNameOf(const std::string& name, const std::string& trustee, uid_t user) {
    const std::string owner = ownerOf(trustee, user);
    std::string readable;
    readable.reserve(name.size() + 1 + owner.size());
    readable.append(name).append(1, '@').append(owner);
    const bool readableFits = !name.empty() && name.front() != '.' && isPlain(name) &&
                              isPlain(owner) && readable.size() <= NAME_MAX;
    if (readableFits) {
        return {std::move(readable), {}};
    }
    std::string identity = identityOf(name, owner);
    return {"~" + boost::uuids::to_string(uuidOf(identity)), std::move(identity)};
}

} // namespace agent::spf::sharedmemory
