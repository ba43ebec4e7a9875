#include "sharedmemory/SegmentName.h"

#include <algorithm>
#include <boost/uuid/name_generator_sha1.hpp>
#include <boost/uuid/uuid_io.hpp>
#include <climits>
#include <string_view>

namespace agent::spf::sharedmemory {

namespace {

/// Neither "@" nor "~", which the two forms of a file name are told apart by.
bool isPlain(std::string_view text) {
    constexpr std::string_view plain = "abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ"
                                       "0123456789_-.";
    return text.find_first_not_of(plain) == std::string_view::npos;
}

} // namespace

// A person who looks into /dev/shm reads "<name>@u<user id>" or "<name>@g<trustee>"; what does not
// fit there is "~" and the identity's UUID of version 5.
SegmentName segmentNameOf(const std::string& name, const std::string& trustee, uid_t user) {
    const std::string owner = trustee.empty() ? "u" + std::to_string(user) : "g" + trustee;
    std::string readable = name + "@" + owner;
    const bool readableFits = !name.empty() && name.front() != '.' && isPlain(name) &&
                              isPlain(owner) && readable.size() <= NAME_MAX;
    if (readableFits) {
        return {std::move(readable), {}};
    }
    std::string identity = owner + '\0' + name;
    const boost::uuids::name_generator_sha1 uuidOf(boost::uuids::ns::oid());
    return {"~" + boost::uuids::to_string(uuidOf(identity)), std::move(identity)};
}

} // namespace agent::spf::sharedmemory
