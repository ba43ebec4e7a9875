#include "endpointregistry/detail/EndpointSysVImpl.h"

#include "endpointregistry/EntryName.h"
#include "endpointregistry/NamedStringArray.h"
#include "endpointregistry/detail/EntryCopy.h"
#include "endpointregistry/detail/EntryFolder.h"
#include "sharedmemory/SegmentOpeners.h"

#include <algorithm>
#include <climits>
#include <functional>
#include <iterator>
#include <set>
#include <string_view>
#include <unistd.h>
#include <unordered_map>
#include <unordered_set>
#include <utility>

namespace agent::spf::endpointregistry {

namespace {

using sharedmemory::SharedMemory;
using Row = Table::Row;

/// The table of the entries that are shared with a group.
Table tableOf(TableAccess& access) {
    return {{NamedStringArray::getBaseName("qvEndpointRegistrySysV", 0, access.trustee().name())},
            access};
}

/// A row is what some member of the group has written there.
std::optional<Endpoint::DataPair> dataOf(const Row& row) {
    constexpr std::size_t elements = 3;
    return row.size() < elements ? std::nullopt : std::optional(Endpoint::DataPair(row[1], row[2]));
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
    , group(trustee)
    , lockedFile(publish(data)) {
}

LockedFile Endpoint::SysVImpl::publish(const DataPair& data) const {
    const Row row{entryName(), data.first, data.second};
    Table::checkEntry(row);
    group.id();
    const EntryFolder folder(group);
    TableAccess access(group);
    Table table = tableOf(access);
    for (;;) {
        SharedMemory base = table.openOrCreateBase();
        LockedFile file = createLockedFile(
            folder, access, entrycopy::contentsOf(data, SharedMemory::Openers::tokenOf(base)));
        if (table.insertReplacing(base, row)) {
            folder.tellReady(entryName());
            return file;
        }
        // The table was lost meanwhile, so the copy in the file states the wrong one.
    }
}

Endpoint::SysVImpl::~SysVImpl() {
    if (publisher != ::getpid()) {
        return;
    }
    TableAccess access(group);
    if (!tableOf(access).eraseContaining(entryName(), TableAccess::Lock::preferred)) {
        // Somebody was stopped with the table's lock. What stays is what a killed publisher leaves:
        // the next to look sees that nobody holds the file, and clears up.
        lockedFile.makePersistent();
    }
}

LockedFile Endpoint::SysVImpl::createLockedFile() {
    const EntryFolder folder(group);
    TableAccess access(group);
    return createLockedFile(folder, access, {});
}

LockedFile Endpoint::SysVImpl::createLockedFile(const EntryFolder& folder, TableAccess& access,
                                                const std::string& contents) const {
    const auto removeRows = [&] {
        if (!tableOf(access).eraseContaining(entryName(), TableAccess::Lock::required)) {
            access.failBusy();
        }
        return true;
    };
    return lockEntryFile(folder, removeRows, NamedStringArray::changeTimeout, contents);
}

bool Endpoint::SysVImpl::staleEndpointFoundAndCleanedUp(const std::string& name,
                                                        const EntryFolder& folder, Table& table) {
    return folder.clearIfStale(
        name, [&] { return table.eraseContaining(name, TableAccess::Lock::preferred); });
}

std::optional<Endpoint::DataPair>
Endpoint::SysVImpl::getCopy(const std::string& name, const EntryFolder& folder,
                            const std::optional<sharedmemory::SegmentToken>& table,
                            std::size_t& allowance) {
    const auto size = entrycopy::sizeFor(getLengthFromName(name));
    const bool isAllowed = size && *size <= allowance;
    const auto contents = isAllowed ? folder.contentsOfLiving(name, *size) : std::nullopt;
    allowance -= contents ? *size : 0;
    auto copy = contents ? entrycopy::parse(*contents) : std::nullopt;
    // Where the table stands that the entry's row went into, the row is what counts.
    if (!copy || copy->base == table) {
        return std::nullopt;
    }
    return std::move(copy->data);
}

std::optional<Endpoint::DataPair> Endpoint::SysVImpl::findDataPair(const NameTest& isWanted,
                                                                   const EntryFolder& folder) {
    std::vector<std::string> first;
    const auto isFirst = [&](std::string_view name) {
        if (isWanted(name)) {
            first.emplace_back(name);
        }
        return !first.empty();
    };
    if (!folder.anyName(std::ref(isFirst))) {
        return std::nullopt;
    }
    // As a rule it lives, and the rest of the folder need not be read.
    std::vector<DataPair> data = getDataPairs(first, folder, 1);
    if (data.empty()) {
        data = getDataPairs(folder.names(isWanted), folder, 1);
    }
    return data.empty() ? std::nullopt : std::optional(std::move(data.front()));
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
    TableAccess access(folder.trustee(), folder.busyTableHolder());
    Table table = tableOf(access);
    const Table::Reading reading = table.read(commonParts(readable));
    const auto rowOf = firstRowsContaining(reading.rows, readable);
    std::size_t copiesAllowance = entrycopy::maxTotal;
    for (const std::string& name : readable) {
        if (pairs.size() == most) {
            break;
        }
        const auto row = rowOf.find(name);
        const bool hasRow = row != rowOf.end();
        if ((hasRow || isPublisherGone(name)) &&
            staleEndpointFoundAndCleanedUp(name, folder, table)) {
            continue;
        }
        auto data =
            hasRow ? dataOf(*row->second) : getCopy(name, folder, reading.base, copiesAllowance);
        if (data && isReadable(*data)) {
            pairs.push_back(std::move(*data));
        }
    }
    return pairs;
}

} // namespace agent::spf::endpointregistry
