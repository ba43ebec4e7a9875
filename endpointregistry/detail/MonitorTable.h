#pragma once

#include "endpointregistry/Endpoint.h"
#include "foundation/os/FileIdentity.h"

#include <array>
#include <boost/multi_index/hashed_index.hpp>
#include <boost/multi_index/mem_fun.hpp>
#include <boost/multi_index/member.hpp>
#include <boost/multi_index_container.hpp>
#include <cstdint>
#include <functional>
#include <string>
#include <string_view>
#include <sys/types.h>
#include <utility>
#include <vector>

namespace agent::spf::endpointregistry {

/// An entry that lives, as a monitor remembers it.
struct MonitoredEntry {
    MonitoredEntry(std::string name, Endpoint::DataPair data, foundation::os::FileIdentity file,
                   std::uint64_t appearance);

    ino_t inode() const { return file.inode; }

    /// The first digits of a hash, or none where there are fewer.
    using Digits = std::uint64_t;
    /// Those of the group tag's hash and of the key's; none where the name is not as all names are.
    using TagAndKey = std::array<Digits, 2>;

    std::string name;
    Endpoint::DataPair data;
    foundation::os::FileIdentity file;
    /// The number of the event that reported it.
    std::uint64_t appearance;
    Digits tag = 0;
    TagAndKey tagAndKey{};
};

/// The entries of one trustee, found as fast as a hash table finds them.
///
/// A lookup goes by parts that a name contains. Nearly all of them can be looked up by the first
/// digits of the group tag's hash and of the key's. What cannot is compared with every name: a hash
/// that happens to be very short, and names that somebody has made up.
class MonitorTable {
public:
    const MonitoredEntry* withName(std::string_view name) const;
    /// The names of the entries whose file this is: one, unless somebody has made links.
    std::vector<std::string> withInode(ino_t inode) const;

    struct Found {
        /// Null when there is none.
        const MonitoredEntry* entry = nullptr;
        bool isOneOfSeveral = false;
    };

    /// An entry whose name contains both parts, as `getGroupTagPrefix` and
    /// `getSelectedKeySubstring` give them.
    Found find(std::string_view tagPrefix, std::string_view keyPart) const;

    using Visitor = std::function<void(const MonitoredEntry& entry)>;

    /// Visits all entries whose name contains this part, as `getGroupTagPrefix` gives it.
    void visit(std::string_view tagPrefix, const Visitor& visitor) const;

    void insert(MonitoredEntry entry) { entries.insert(std::move(entry)); }
    void erase(std::string_view name);

private:
    struct HashOfName {
        std::size_t operator()(std::string_view name) const {
            return std::hash<std::string_view>()(name);
        }
    };
    struct HashOfDigits {
        std::size_t operator()(const MonitoredEntry::TagAndKey& digits) const {
            constexpr std::uint64_t odd = 0x9e3779b97f4a7c15;
            return (digits[0] * odd) ^ ((digits[1] * odd) >> 7U);
        }
        std::size_t operator()(MonitoredEntry::Digits digits) const {
            return (*this)(MonitoredEntry::TagAndKey{digits, 0});
        }
    };
    struct ByName {};
    struct ByInode {};
    struct ByTag {};
    struct ByTagAndKey {};

    template<typename Tag, auto member, typename Type, typename Hash>
    using Index = boost::multi_index::hashed_non_unique<
        boost::multi_index::tag<Tag>, boost::multi_index::member<MonitoredEntry, Type, member>,
        Hash>;

    using Entries = boost::multi_index_container<
        MonitoredEntry,
        boost::multi_index::indexed_by<
            boost::multi_index::hashed_unique<
                boost::multi_index::tag<ByName>,
                boost::multi_index::member<MonitoredEntry, std::string, &MonitoredEntry::name>,
                HashOfName, std::equal_to<>>,
            boost::multi_index::hashed_non_unique<
                boost::multi_index::tag<ByInode>,
                boost::multi_index::const_mem_fun<MonitoredEntry, ino_t, &MonitoredEntry::inode>>,
            Index<ByTag, &MonitoredEntry::tag, MonitoredEntry::Digits, HashOfDigits>,
            Index<ByTagAndKey, &MonitoredEntry::tagAndKey, MonitoredEntry::TagAndKey,
                  HashOfDigits>>>;

    Entries entries;
};

} // namespace agent::spf::endpointregistry
