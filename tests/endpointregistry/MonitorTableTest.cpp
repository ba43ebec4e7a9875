#include "endpointregistry/detail/MonitorTable.h"

#include "endpointregistry/EntryName.h"
#include "endpointregistry/detail/NameListing.h"
#include "tests/endpointregistry/EndpointTools.h"

#include <algorithm>
#include <gtest/gtest.h>
#include <iterator>
#include <string>
#include <sys/stat.h>
#include <vector>

using namespace agent::spf::endpointregistry;

namespace {

using Names = std::vector<std::string>;

/// A table, and the names in it, which a lookup compares one after the other.
struct Entries {
    MonitorTable table;
    Names names;

    void add(const std::string& name) {
        struct stat status {};
        status.st_ino = names.size() + 1;
        table.insert({name, {name, ""}, foundation::os::FileIdentity(status), 0});
        names.push_back(name);
    }

    auto countOf(const std::string& prefix, const std::string& key) const {
        return std::count_if(names.begin(), names.end(), [&](const std::string& name) {
            return agent::spf::endpointregistry::contains(name, prefix) &&
                   agent::spf::endpointregistry::contains(name, key);
        });
    }

    Names with(const std::string& prefix) const {
        Names found;
        std::copy_if(names.begin(), names.end(), std::back_inserter(found),
                     [&](const std::string& name) {
                         return agent::spf::endpointregistry::contains(name, prefix);
                     });
        std::sort(found.begin(), found.end());
        return found;
    }

    Names visited(const std::string& prefix) const {
        Names found;
        table.visit(prefix, [&](const MonitoredEntry& entry) { found.push_back(entry.name); });
        std::sort(found.begin(), found.end());
        return found;
    }
};

/// Names as they are, and names as nobody's hashes make them.
Entries manifold() {
    Entries entries;
    for (const std::string tag : {"", "a", "ab", "grp", "12345678", "0123456789abcdef"}) {
        for (const std::string key : {"", "1", "key", "87654321"}) {
            entries.add(tests::entryName({tag, key + "d"}, tag, key, 42));
            entries.add("qvER" + tag + "k" + key + "l1p2v0");
        }
    }
    for (const std::string name :
         {"qvER", "xqvER12345678k87654321l1p2v0", "qvER12345678k87654321l1p2v0x",
          "qvER1234567890k8765432100k1l1p2v0", "qvER1234567k87654321l1p2v0",
          "qvER12345678k8765432l1p2v0", "qvER12345678k", "qvER12345678qvERabcdefabk87654321l1p2v0",
          "qvER123456789kkl1p2v0", "k87654321qvER12345678"}) {
        entries.add(name);
    }
    return entries;
}

const Names prefixes{"qvER",          "qvER1",
                     "qvER1234567",   "qvER12345678",
                     "qvER123456789", "qvERabcdefab",
                     "qvERffffffff",  getGroupTagPrefix("grp"),
                     "qvERabcdef",    getGroupTagPrefix("a")};
const Names keys{
    "k", "k1", "k8765432", "k87654321", "k876543210", "kffffffff", getSelectedKeySubstring("key")};

} // namespace

TEST(MonitorTable, FindsWhatAComparisonOfAllNamesFinds) {
    const Entries entries = manifold();
    for (const std::string& prefix : prefixes) {
        for (const std::string& key : keys) {
            const auto [found, isOneOfSeveral] = entries.table.find(prefix, key);
            const auto count = entries.countOf(prefix, key);
            ASSERT_EQ(found != nullptr, count > 0) << prefix << " " << key;
            EXPECT_EQ(isOneOfSeveral, count > 1) << prefix << " " << key;
            if (found != nullptr) {
                EXPECT_TRUE(contains(found->name, prefix));
                EXPECT_TRUE(contains(found->name, key));
            }
        }
    }
}

TEST(MonitorTable, VisitsWhatAComparisonOfAllNamesFinds) {
    const Entries entries = manifold();
    for (const std::string& prefix : prefixes) {
        EXPECT_EQ(entries.visited(prefix), entries.with(prefix)) << prefix;
    }
}

TEST(MonitorTable, FindsByNameAndByInodeWhatWasNotErased) {
    Entries entries = manifold();
    const std::string first = entries.names.front();
    ASSERT_NE(entries.table.withName(first), nullptr);
    EXPECT_EQ(entries.table.withInode(1), Names{first});
    entries.table.erase(first);
    entries.table.erase("none");
    EXPECT_EQ(entries.table.withName(first), nullptr);
    EXPECT_EQ(entries.table.withInode(1), Names());
    EXPECT_EQ(entries.visited("qvER").size(), entries.names.size() - 1);
}

TEST(MonitorTable, FindsNoErasedEntry) {
    Entries entries = manifold();
    for (const std::string& name : entries.names) {
        entries.table.erase(name);
    }
    for (const std::string& prefix : prefixes) {
        EXPECT_EQ(entries.visited(prefix), Names());
        EXPECT_EQ(entries.table.find(prefix, "k").entry, nullptr);
    }
}
