#include "endpointregistry/detail/EndpointPosixImpl.h"

#include "tests/endpointregistry/EndpointTools.h"

#include <cstring>
#include <filesystem>
#include <gtest/gtest.h>
#include <stdexcept>
#include <string>
#include <unistd.h>

using namespace agent::spf::endpointregistry;
namespace sharedmemory = agent::spf::sharedmemory;
using tests::DataPair;
using tests::noProcess;
using tests::PlantedEntry;

namespace {

namespace fs = std::filesystem;
using Record = Endpoint::PosixImpl;

const DataPair data("ab", "c");
const DataPair nothing;

std::string nameBy(pid_t publisher) {
    return tests::entryName(data, "tag", "key", publisher);
}

DataPair read(const PlantedEntry& entry) {
    return Record::getDataPair(entry.name(), EntryFolder(""));
}

class ReadingAnEntry : public tests::RegistryTest {};

/// Reading an entry whose name tells of this process, of another that lives, of none.
class ReadingAnEntryBy : public tests::RegistryTest, public testing::WithParamInterface<int> {
protected:
    static std::string name() {
        return nameBy(GetParam() == 0 ? ::getpid() : GetParam() == 1 ? ::getppid() : noProcess);
    }
};

} // namespace

TEST_P(ReadingAnEntryBy, GivesItsDataWhileItIsHeld) {
    PlantedEntry entry(name(), tests::segmentBytes(data));
    entry.hold();
    EXPECT_EQ(read(entry), data);
    EXPECT_TRUE(entry.hasFile());
    EXPECT_TRUE(entry.hasSegment());
}

TEST_P(ReadingAnEntryBy, ClearsItAwayWhenNobodyHoldsIt) {
    const PlantedEntry entry(name(), tests::segmentBytes(data));
    EXPECT_EQ(read(entry), nothing);
    EXPECT_FALSE(entry.hasFile());
    EXPECT_FALSE(entry.hasSegment());
    EXPECT_EQ(read(entry), nothing);
}

TEST_P(ReadingAnEntryBy, ClearsAwayOneThatDiedBeforeItWasReady) {
    const PlantedEntry entry(name(), tests::segmentBytes(data, 0));
    EXPECT_EQ(read(entry), nothing);
    EXPECT_FALSE(entry.hasFile());
    EXPECT_FALSE(entry.hasSegment());
}

TEST_P(ReadingAnEntryBy, GivesNothingBeforeItIsReady) {
    PlantedEntry entry(name(), tests::segmentBytes(data, 0));
    entry.hold();
    EXPECT_EQ(read(entry), nothing);
    EXPECT_TRUE(entry.hasFile());
    EXPECT_TRUE(entry.hasSegment());
}

TEST_P(ReadingAnEntryBy, GivesNothingBeforeItHasASegment) {
    PlantedEntry entry(name(), "");
    entry.hold();
    EXPECT_EQ(read(entry), nothing);
    EXPECT_TRUE(entry.hasFile());
}

INSTANTIATE_TEST_SUITE_P(Process, ReadingAnEntryBy, testing::Values(0, 1, 2),
                         [](const auto& process) {
                             return process.param == 0   ? "ThisOne"
                                    : process.param == 1 ? "AnotherOne"
                                                         : "None";
                         });

TEST_F(ReadingAnEntry, ClearsAwayAFileWithoutASegmentWhoseProcessIsGone) {
    const PlantedEntry entry(nameBy(noProcess), "");
    EXPECT_EQ(read(entry), nothing);
    EXPECT_FALSE(entry.hasFile());
}

TEST_F(ReadingAnEntry, GivesNothingWhereThereIsNone) {
    EXPECT_EQ(Record::getDataPair(nameBy(noProcess), EntryFolder("")), nothing);
    EXPECT_EQ(Record::getDataPair(nameBy(::getpid()), EntryFolder("")), nothing);
    EXPECT_EQ(Record::getDataPair("qvER", EntryFolder("")), nothing);
    EXPECT_FALSE(fs::exists(tests::entryFolder()));
}

TEST_F(ReadingAnEntry, LeavesOneOfAnotherVersionUntouchedDeadOrAlive) {
    std::string name = nameBy(noProcess);
    name.back() = '1';
    PlantedEntry entry(name, tests::segmentBytes(data));
    EXPECT_EQ(read(entry), nothing);
    entry.hold();
    EXPECT_EQ(read(entry), nothing);
    EXPECT_TRUE(entry.hasFile());
    EXPECT_EQ(tests::contentOf(tests::segmentPath(name)), tests::segmentBytes(data));
}

TEST_F(ReadingAnEntry, GivesNothingWhereItsSegmentIsTooSmall) {
    PlantedEntry entry(nameBy(noProcess), tests::segmentBytes(data).substr(0, 19));
    entry.hold();
    EXPECT_EQ(read(entry), nothing);
    EXPECT_TRUE(entry.hasFile());
}

TEST_F(ReadingAnEntry, DoesNotLookBehindTheDataThatItsNameTellsOf) {
    PlantedEntry entry(nameBy(noProcess), tests::segmentBytes(data) + std::string(9000, 'x'));
    entry.hold();
    EXPECT_EQ(read(entry), data);
}

TEST_F(ReadingAnEntry, SplitsTheDataAtTheVeryEnd) {
    PlantedEntry entry(nameBy(noProcess), tests::segmentBytes({"abc", ""}));
    entry.hold();
    EXPECT_EQ(read(entry), DataPair("abc", ""));
}

TEST_F(ReadingAnEntry, RefusesASplitBehindTheData) {
    std::string bytes = tests::segmentBytes(data);
    bytes.at(8) = 4;
    bytes.at(15) = 4;
    PlantedEntry entry(nameBy(noProcess), bytes);
    entry.hold();
    EXPECT_THROW(read(entry), std::out_of_range);
    EXPECT_THROW(Endpoint::find("tag", "key"), std::out_of_range);
    EXPECT_THROW(Endpoint::list(), std::out_of_range);
    EXPECT_TRUE(entry.hasFile());
}

TEST_F(ReadingAnEntry, OfNoDataGivesTwoEmptyStrings) {
    const std::string name = tests::entryName(nothing, "tag", "key", noProcess);
    PlantedEntry entry(name, tests::segmentBytes(nothing));
    entry.hold();
    EXPECT_EQ(read(entry), nothing);
    EXPECT_TRUE(entry.hasSegment());
}

TEST_F(ReadingAnEntry, AttachesToItsSegmentByName) {
    const PlantedEntry entry(nameBy(noProcess), tests::segmentBytes(data));
    const sharedmemory::SharedMemory segment = Record::findSharedMemory(entry.name(), "");
    ASSERT_TRUE(segment.isAttached());
    EXPECT_FALSE(segment.isCreator());
    EXPECT_EQ(std::memcmp(segment.getPointer(), tests::segmentBytes(data).data(), 20), 0);
    EXPECT_FALSE(Record::findSharedMemory(nameBy(::getpid()), "").isAttached());
}
