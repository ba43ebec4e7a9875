#include "endpointregistry/detail/EndpointPosixImpl.h"

#include "tests/endpointregistry/EndpointFolderWatch.h"
#include "tests/endpointregistry/EndpointTools.h"

#include <filesystem>
#include <gtest/gtest.h>
#include <string>
#include <vector>

using namespace agent::spf::endpointregistry;
using tests::FolderWatch;
using tests::PlantedEntry;

namespace {

namespace fs = std::filesystem;
using Strings = std::vector<std::string>;

const tests::DataPair data("ab", "c");
const std::string name = tests::entryName(data, "tag", "key", tests::noProcess);

bool isStale() {
    return Endpoint::PosixImpl::staleEndpointFoundAndCleanedUp(name, EntryFolder(""));
}

class StaleEntry : public tests::RegistryTest {};

} // namespace

TEST_F(StaleEntry, IsNotOneThatSomebodyHolds) {
    PlantedEntry entry(name, tests::segmentBytes(data));
    entry.hold();
    EXPECT_FALSE(isStale());
    EXPECT_TRUE(entry.hasFile());
    EXPECT_TRUE(entry.hasSegment());
}

TEST_F(StaleEntry, LosesItsSegmentAndThenItsFile) {
    const PlantedEntry entry(name, tests::segmentBytes(data));
    FolderWatch watch({tests::entryFolder(), "/dev/shm"});
    EXPECT_TRUE(isStale());
    const std::string segment = fs::path(tests::segmentPath(name)).filename();
    EXPECT_EQ(watch.changes(), (Strings{"-" + segment, "-" + name}));
}

TEST_F(StaleEntry, MayHaveNoSegment) {
    const PlantedEntry entry(name, "");
    EXPECT_TRUE(isStale());
    EXPECT_FALSE(entry.hasFile());
}

TEST_F(StaleEntry, IsAlsoOneThatIsGoneAndNothingIsMadeToFindThatOut) {
    tests::provideEntryFolder();
    FolderWatch watch({tests::entryFolder(), "/dev/shm"});
    EXPECT_TRUE(isStale());
    EXPECT_EQ(watch.changes(), Strings());
}

TEST_F(StaleEntry, IsAlsoOneWhoseFolderIsGone) {
    EXPECT_TRUE(isStale());
    EXPECT_FALSE(fs::exists(tests::entryFolder()));
}

TEST_F(StaleEntry, TakesNoOtherEntryWithIt) {
    PlantedEntry entry(name, tests::segmentBytes(data));
    const PlantedEntry other(name + "0", tests::segmentBytes(data));
    EXPECT_TRUE(isStale());
    EXPECT_FALSE(entry.hasFile());
    EXPECT_TRUE(other.hasFile());
    EXPECT_TRUE(other.hasSegment());
}
