#include "endpointregistry/detail/EndpointPosixImpl.h"

#include "tests/endpointregistry/EndpointTools.h"
#include "tests/endpointregistry/FoldersTools.h"
#include "tests/endpointregistry/LockedFileTools.h"
#include "tests/endpointregistry/LoggersReportedFailure.h"

#include <filesystem>
#include <gtest/gtest.h>
#include <memory>
#include <string>
#include <sys/stat.h>
#include <unistd.h>
#include <vector>

using namespace agent::spf::endpointregistry;
using tests::DataPair;
using tests::PlantedEntry;

namespace {

namespace fs = std::filesystem;
using Record = Endpoint::PosixImpl;
using Strings = std::vector<std::string>;

/// Asks the record itself, whose overload for any entry hides this one.
DataPair dataOf(const Endpoint::Impl& record) {
    return record.getDataPair();
}

/// Records of an entry whose name is known beforehand, as it is to whoever leaves something there.
class PosixRecord : public tests::RegistryTest {
protected:
    const DataPair data{"ab", "c"};
    const std::string name = tests::entryName(data, "tag", "key", ::getpid());

    std::unique_ptr<Record> publish() const {
        return std::make_unique<Record>(data, "tag", "key", "");
    }

    /// Expects publication to meet a live entry, of which nothing is logged.
    template<typename Publication>
    void expectDuplicate(const Publication& publication, const std::string& detail) const {
        tests::expectLogged(
            [&] {
                tests::expectThrown<Endpoint::DuplicateEndpointError>(
                    publication, "Endpoint already exists in registry: " + detail);
            },
            {});
    }

    const std::string foundInFile =
        "A synonym endpoint was found while trying to create the locked file";
    const std::string foundInMemory =
        "A synonym endpoint was found while trying to setup the shared memory";
};

} // namespace

TEST_F(PosixRecord, IsRefusedWhileOneOfTheSameNameLives) {
    const auto first = publish();
    expectDuplicate([this] { publish(); }, foundInFile);
    EXPECT_EQ(Record::getDataPair(name, EntryFolder("")), data);
    EXPECT_TRUE(tests::isHeld(tests::entryPath(name)));
}

TEST_F(PosixRecord, IsRefusedWhileSomebodyHoldsTheFileOfItsName) {
    PlantedEntry entry(name, tests::segmentBytes({"old", ""}));
    entry.hold();
    expectDuplicate([this] { publish(); }, foundInFile);
    EXPECT_EQ(Record::getDataPair(name, EntryFolder("")), DataPair("old", ""));
}

TEST_F(PosixRecord, GetsNoSecondFile) {
    const auto record = publish();
    expectDuplicate([&] { const LockedFile file = record->createLockedFile(); }, foundInFile);
    EXPECT_TRUE(tests::isHeld(tests::entryPath(name)));
}

TEST_F(PosixRecord, GetsNoSecondSegment) {
    const auto record = publish();
    expectDuplicate([&] { const auto segment = record->createSharedMemory(data); }, foundInMemory);
    EXPECT_EQ(dataOf(*record), data);
}

TEST_F(PosixRecord, LeavesNoFileWhereItsSegmentIsRefused) {
    // Too small to be the segment of a dead publisher, so it is not cleared away.
    tests::plantSegment(name, "small");
    EXPECT_THROW(publish(), std::runtime_error);
    EXPECT_EQ(tests::entryFiles(), Strings());
    EXPECT_EQ(tests::contentOf(tests::segmentPath(name)), "small");
    fs::remove(tests::segmentPath(name));
}

TEST_F(PosixRecord, TakesOverTheFileAndTheSegmentOfADeadPublisher) {
    const PlantedEntry dead(name, tests::segmentBytes({"", "old"}));
    std::unique_ptr<Record> record = publish();
    EXPECT_EQ(dataOf(*record), data);
    EXPECT_EQ(tests::contentOf(tests::segmentPath(name)), tests::segmentBytes(data));
    EXPECT_TRUE(tests::isHeld(tests::entryPath(name)));
    record.reset();
    EXPECT_FALSE(dead.hasFile());
    EXPECT_FALSE(dead.hasSegment());
}

TEST_F(PosixRecord, TakesOverTheFileAlone) {
    const PlantedEntry dead(name, "");
    std::unique_ptr<Record> record = publish();
    EXPECT_EQ(dataOf(*record), data);
    record.reset();
    EXPECT_FALSE(dead.hasFile());
}

TEST_F(PosixRecord, TakesOverTheSegmentAlone) {
    tests::plantSegment(name, tests::segmentBytes({"", "old"}));
    const auto record = publish();
    EXPECT_EQ(dataOf(*record), data);
    EXPECT_EQ(tests::contentOf(tests::segmentPath(name)), tests::segmentBytes(data));
}

TEST_F(PosixRecord, TakesOverASegmentThatWasNeverReady) {
    const PlantedEntry dead(name, tests::segmentBytes({"old", ""}, 0));
    const auto record = publish();
    EXPECT_EQ(dataOf(*record), data);
}

TEST_F(PosixRecord, WritesNoByteThroughALinkThatStandsInItsWay) {
    tests::provideEntryFolder();
    const tests::ScratchFolder scratch;
    const std::string target = scratch / "target";
    for (const std::string& path : {tests::entryPath(name), tests::segmentPath(name)}) {
        fs::create_symlink(target, path);
        EXPECT_THROW(publish(), std::runtime_error) << path;
        EXPECT_FALSE(fs::exists(target)) << path;
        EXPECT_TRUE(fs::is_symlink(path)) << path;
        fs::remove(path);
        EXPECT_EQ(tests::entryFiles(), Strings()) << path;
    }
}

TEST_F(PosixRecord, IsRefusedWhereItsNameIsNoFiles) {
    tests::provideEntryFolder();
    const std::string path = tests::entryPath(name);
    fs::create_directory(path);
    EXPECT_THROW(publish(), std::runtime_error);
    EXPECT_TRUE(fs::is_directory(path));
    fs::remove(path);

    ASSERT_EQ(::mkfifo(path.c_str(), 0600), 0);
    EXPECT_THROW(publish(), std::runtime_error);
    EXPECT_TRUE(fs::is_fifo(path));
    fs::remove(path);
}

TEST_F(PosixRecord, CanBePublishedAgainOnceWithdrawn) {
    for (int i = 0; i < 10; ++i) {
        const auto record = publish();
        EXPECT_EQ(Record::getDataPair(name, EntryFolder("")), data);
    }
}
