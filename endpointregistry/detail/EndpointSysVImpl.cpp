#include "endpointregistry/detail/EndpointSysVImpl.h"

#include "endpointregistry/detail/AbandonedFile.h"
#include "endpointregistry/detail/JoinedFolder.h"

#include <algorithm>
#include <climits>
#include <iterator>
#include <optional>
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

void eraseRows(NamedStringArray& array, const std::string& name) {
    for (const Row& row : array.filter({name})) {
        array.erase(row);
    }
}

/// Finds out about the publishers of a group's entries. The folder is joined once, when it is first
/// needed.
class LivenessProbe {
public:
    explicit LivenessProbe(std::string trustee)
        : trustee(std::move(trustee)) {}

    /// Whether no publisher holds the entry of this name; what a dead one left is removed then.
    bool clearIfStale(const std::string& name, NamedStringArray& array) {
        if (!folder) {
            folder = JoinedFolder::find(Endpoint::Impl::LF_PARENT_PATH, trustee);
        }
        if (!folder) {
            return true;
        }
        AbandonedFile file(name, *folder);
        if (file.finding() == AbandonedFile::Finding::abandoned) {
            eraseRows(array, name);
            file.remove();
        }
        return file.finding() != AbandonedFile::Finding::inUse;
    }

private:
    std::string trustee;
    std::optional<JoinedFolder> folder;
};

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
    , lockedFile(SysVImpl::createLockedFile()) {
    tableOf(trustee).insert({entryName(), data.first, data.second});
}

Endpoint::SysVImpl::~SysVImpl() {
    if (publisher == ::getpid()) {
        NamedStringArray table = tableOf(trusteeName());
        eraseRows(table, entryName());
    }
}

LockedFile Endpoint::SysVImpl::createLockedFile() {
    return lockEntryFile([this] {
        NamedStringArray table = tableOf(trusteeName());
        eraseRows(table, entryName());
    });
}

bool Endpoint::SysVImpl::staleEndpointFoundAndCleanedUp(const std::string& name,
                                                        const std::string& trustee,
                                                        NamedStringArray& array) {
    return LivenessProbe(trustee).clearIfStale(name, array);
}

Endpoint::DataPair Endpoint::SysVImpl::getDataPair(const std::string& name,
                                                   const std::string& trustee) {
    return getDataPairs({name}, trustee).front();
}

std::vector<Endpoint::DataPair>
Endpoint::SysVImpl::getDataPairs(const std::vector<std::string>& names,
                                 const std::string& trustee) {
    std::vector<DataPair> pairs(names.size());
    std::vector<std::string> readable;
    std::copy_if(names.begin(), names.end(), std::back_inserter(readable), hasKnownVersion);
    if (readable.empty()) {
        return pairs;
    }
    NamedStringArray table = tableOf(trustee);
    LivenessProbe probe(trustee);
    const auto isStale = [&](const std::string& name) { return probe.clearIfStale(name, table); };
    const std::vector<Row> rows = table.filter(commonParts(readable));
    const auto rowOf = firstRowsContaining(rows, readable);
    for (std::size_t i = 0; i < names.size(); ++i) {
        const std::string& name = names[i];
        if (const auto row = rowOf.find(name); row != rowOf.end()) {
            if (!isStale(name)) {
                pairs[i] = dataOf(*row->second);
            }
        } else if (hasKnownVersion(name) && isPublisherGone(name)) {
            isStale(name);
        }
    }
    return pairs;
}

} // namespace agent::spf::endpointregistry
