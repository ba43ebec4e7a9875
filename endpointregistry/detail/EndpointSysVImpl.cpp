#include "endpointregistry/detail/EndpointSysVImpl.h"

#include "endpointregistry/detail/EntryFolder.h"

#include <algorithm>
#include <climits>
#include <iterator>
#include <set>
#include <string_view>
#include <unistd.h>
#include <unordered_map>
#include <unordered_set>
#include <utility>

namespace agent::spf::endpointregistry {

namespace {

NamedStringArray tableOf(const std::string& trustee) {
    return {"qvEndpointRegistrySysV", 0, trustee};
}

using Row = std::vector<std::string>;

void eraseRows(NamedStringArray& array, const std::string& name,
               const foundation::os::Group& trustee) {
    for (const Row& row : array.filter({name}, trustee)) {
        array.erase(row, trustee);
    }
}

/// A row is what some member of the group has written there.
Endpoint::DataPair dataOf(const Row& row) {
    constexpr std::size_t elements = 3;
    return row.size() < elements ? Endpoint::DataPair() : Endpoint::DataPair(row[1], row[2]);
}

/// What the table may be asked for when it is read once for all these names.
std::vector<std::string> commonParts(const std::vector<std::string>& names) {
    return names.size() == 1 ? names : std::vector<std::string>();
}

/// For each name the first row whose first element contains it, where there is one.
///
/// A name's element contains few strings of a name's length, so they are looked up one by one:
/// every name in every row would take a listing's time squared. Elements far longer than a name,
/// which only a hostile member writes, are passed over.
std::unordered_map<std::string_view, const Row*>
firstRowsContaining(const std::vector<Row>& rows, const std::vector<std::string>& names) {
    constexpr std::size_t longestElement = std::size_t{4} * NAME_MAX;
    const std::unordered_set<std::string_view> wanted(names.begin(), names.end());
    std::set<std::size_t> lengths;
    for (const std::string& name : names) {
        lengths.insert(name.size());
    }
    std::unordered_map<std::string_view, const Row*> found;
    for (const Row& row : rows) {
        const std::string_view text = row.empty() ? std::string_view() : row.front();
        if (text.size() > longestElement) {
            continue;
        }
        for (const std::size_t length : lengths) {
            for (std::size_t start = 0; start + length <= text.size(); ++start) {
                const auto name = wanted.find(text.substr(start, length));
                if (name != wanted.end()) {
                    found.emplace(*name, &row);
                }
            }
        }
    }
    return found;
}

} // namespace

Endpoint::SysVImpl::SysVImpl(const DataPair& data, const std::string& groupTag,
                             const std::string& selectedKey, const std::string& trustee)
    : Impl(data, groupTag, selectedKey, trustee)
    , publisher(::getpid())
    , lockedFile(publish(data)) {
}

LockedFile Endpoint::SysVImpl::publish(const DataPair& data) const {
    const EntryFolder folder(trusteeName());
    LockedFile file = createLockedFile(folder);
    tableOf(trusteeName()).insert({entryName(), data.first, data.second}, folder.trustee());
    folder.tellReady(entryName());
    return file;
}

Endpoint::SysVImpl::~SysVImpl() {
    if (publisher == ::getpid()) {
        NamedStringArray table = tableOf(trusteeName());
        eraseRows(table, entryName(), trusteeName());
    }
}

LockedFile Endpoint::SysVImpl::createLockedFile() {
    return createLockedFile(EntryFolder(trusteeName()));
}

LockedFile Endpoint::SysVImpl::createLockedFile(const EntryFolder& folder) const {
    NamedStringArray table = tableOf(trusteeName());
    const auto removeRows = [&] { eraseRows(table, entryName(), folder.trustee()); };
    LockedFile file = lockEntryFile(folder, removeRows);
    // A dead publisher's, which readers would come upon first.
    removeRows();
    return file;
}

bool Endpoint::SysVImpl::staleEndpointFoundAndCleanedUp(const std::string& name,
                                                        const EntryFolder& folder,
                                                        NamedStringArray& array) {
    return folder.clearIfStale(name, [&] { eraseRows(array, name, folder.trustee()); });
}

std::vector<Endpoint::DataPair>
Endpoint::SysVImpl::getDataPairs(const std::vector<std::string>& names, const EntryFolder& folder,
                                 std::size_t most) {
    std::vector<DataPair> pairs;
    std::vector<std::string> readable;
    std::copy_if(names.begin(), names.end(), std::back_inserter(readable), hasKnownVersion);
    if (readable.empty()) {
        return pairs;
    }
    NamedStringArray table = tableOf(folder.trustee().name());
    const auto isStale = [&](const std::string& name) {
        return staleEndpointFoundAndCleanedUp(name, folder, table);
    };
    const std::vector<Row> rows = table.filter(commonParts(readable), folder.trustee());
    const auto rowOf = firstRowsContaining(rows, readable);
    for (const std::string& name : readable) {
        if (pairs.size() == most) {
            break;
        }
        if (const auto row = rowOf.find(name); row != rowOf.end()) {
            DataPair data = dataOf(*row->second);
            if (!isStale(name) && isReadable(data)) {
                pairs.push_back(std::move(data));
            }
        } else if (isPublisherGone(name)) {
            isStale(name);
        }
    }
    return pairs;
}

} // namespace agent::spf::endpointregistry
