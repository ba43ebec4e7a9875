#include "endpointregistry/detail/StaleFile.h"

#include "endpointregistry/Endpoint.h"
#include "endpointregistry/LockedFile.h"
#include "endpointregistry/detail/EntryFolder.h"
#include "foundation/os/FileDescriptor.h"
#include "tests/endpointregistry/EndpointFolderWatch.h"
#include "tests/endpointregistry/EndpointTools.h"
#include "tests/endpointregistry/LockedFileTools.h"

#include <atomic>
#include <cerrno>
#include <fcntl.h>
#include <filesystem>
#include <gtest/gtest.h>
#include <optional>
#include <string>
#include <sys/file.h>
#include <sys/stat.h>
#include <thread>
#include <vector>

using namespace agent::spf::endpointregistry;
using tests::FolderWatch;
using tests::PlantedEntry;

namespace {

namespace fs = std::filesystem;
using Finding = StaleFile::Finding;

const std::string parent = "qvEndpointRegistry";
const std::string name = "entry";

Finding findingOf(const std::string& file) {
    const auto folder = OpenFolder::findPrivate(parent);
    return StaleFile(file, folder.value()).finding();
}

class StaleFiles : public tests::RegistryTest {
protected:
    /// The folder of entries, which must be there when it is first asked for.
    const OpenFolder& folder() {
        if (!found) {
            found = OpenFolder::findPrivate(parent);
        }
        return found.value();
    }

private:
    std::optional<OpenFolder> found;
};

/// Keeps others from clearing up, as one does that was stopped while it cleared up.
class FolderHolder {
public:
    FolderHolder()
        : folder(::open(tests::entryFolder().c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC)) {
        EXPECT_EQ(::flock(folder.get(), LOCK_SH | LOCK_NB), 0);
    }

private:
    foundation::os::FileDescriptor folder;
};

} // namespace

TEST_F(StaleFiles, AreThoseThatNobodyHolds) {
    const PlantedEntry entry(name, "");
    EXPECT_EQ(findingOf(name), Finding::stale);
}

TEST_F(StaleFiles, AreNotThoseThatAPublisherHolds) {
    PlantedEntry entry(name, "");
    entry.hold();
    EXPECT_EQ(findingOf(name), Finding::inUse);
    EXPECT_TRUE(entry.hasFile());
    EXPECT_TRUE(tests::isHeld(tests::entryPath(name)));
}

TEST_F(StaleFiles, AreNotThoseThatAreGone) {
    tests::provideEntryFolder();
    FolderWatch watch({tests::entryFolder()});
    EXPECT_EQ(findingOf(name), Finding::nothingToClear);
    EXPECT_EQ(watch.changes(), std::vector<std::string>());
}

TEST_F(StaleFiles, NeedNoFolderToBeGone) {
    const EntryFolder none("");
    EXPECT_TRUE(none.clearIfStale(name, [] {
        ADD_FAILURE() << "there is no data";
        return true;
    }));
    EXPECT_FALSE(fs::exists(tests::entryFolder()));
}

TEST_F(StaleFiles, AreNotWhatIsNoFile) {
    tests::provideEntryFolder();
    fs::create_directory(tests::entryPath("folder"));
    ASSERT_EQ(::mkfifo(tests::entryPath("pipe").c_str(), 0600), 0);
    fs::create_symlink("nowhere", tests::entryPath("dangling link"));
    fs::create_symlink("pipe", tests::entryPath("link"));
    for (const std::string& planted : tests::entryFiles()) {
        StaleFile file(planted, folder());
        EXPECT_EQ(file.finding(), Finding::inUse) << planted;
        EXPECT_TRUE(fs::is_directory(tests::entryFolder())) << planted;
    }
    EXPECT_EQ(tests::entryFiles().size(), 4U);
    fs::remove_all(tests::entryFolder());
}

TEST_F(StaleFiles, StayUntilTheyAreRemoved) {
    const PlantedEntry entry(name, "");
    { const StaleFile examined(name, folder()); }
    EXPECT_TRUE(entry.hasFile());
    StaleFile file(name, folder());
    ASSERT_EQ(file.finding(), Finding::stale);
    file.remove();
    EXPECT_FALSE(entry.hasFile());
}

TEST_F(StaleFiles, LookDeadToAllWhileTheyAreCleared) {
    const PlantedEntry entry(name, "");
    const StaleFile file(name, folder());
    ASSERT_EQ(file.finding(), Finding::stale);
    EXPECT_FALSE(LockedFile::isLocked(name, parent, ""));
}

TEST_F(StaleFiles, CannotBeTakenOverWhileTheyAreCleared) {
    const PlantedEntry entry(name, "");
    const StaleFile file(name, folder());
    ASSERT_EQ(file.finding(), Finding::stale);
    const LockedFile taken = LockedFile::tryLock(name, parent, "");
    EXPECT_FALSE(taken.isLocked());
    EXPECT_EQ(taken.getLockError(), EWOULDBLOCK);
}

TEST_F(StaleFiles, CanBeTakenOverWhileOthersThatClearAreWaitedFor) {
    const PlantedEntry entry(name, "");
    const FolderHolder stopped;
    std::atomic<bool> isOver = false;
    std::atomic<int> waits = 0;
    std::vector<std::thread> readers(3);
    for (std::thread& reader : readers) {
        reader = std::thread([&] {
            while (!isOver) {
                const Finding finding = findingOf(name);
                EXPECT_TRUE(finding == Finding::busy || finding == Finding::inUse);
                waits += finding == Finding::busy ? 1 : 0;
            }
        });
    }
    for (int round = 1; round <= 5; ++round) {
        tests::waitUntil([&] { return waits > 6 * round; }, "readers that all wait");
        EXPECT_TRUE(LockedFile::tryLock(name, parent, "").isLocked());
    }
    isOver = true;
    for (std::thread& reader : readers) {
        reader.join();
    }
}

TEST_F(StaleFiles, AreNotClearedWhileTheFolderIsHeld) {
    const PlantedEntry entry(name, "");
    const PlantedEntry other("other entry", "");
    {
        const FolderHolder stopped;
        const EntryFolder entries("");
        const auto fail = [] {
            ADD_FAILURE() << "data was removed";
            return true;
        };
        EXPECT_TRUE(entries.clearIfStale(name, fail));
        EXPECT_TRUE(entries.clearIfStale(other.name(), fail));
        EXPECT_TRUE(entry.hasFile());
    }
    EXPECT_TRUE(EntryFolder("").clearIfStale(name, [] { return true; }));
    EXPECT_FALSE(entry.hasFile());
}

TEST_F(StaleFiles, CanBeTakenOverOnceExamined) {
    const PlantedEntry entry(name, "");
    EXPECT_EQ(findingOf(name), Finding::stale);
    EXPECT_TRUE(LockedFile::tryLock(name, parent, "").isLocked());
}

TEST_F(StaleFiles, LeaveARecentPublishersFileAlone) {
    const PlantedEntry entry(name, "");
    std::optional<StaleFile> file(std::in_place, name, folder());
    ASSERT_EQ(file->finding(), Finding::stale);
    file->remove();
    file.reset();
    PlantedEntry next(name, "");
    next.hold();
    EXPECT_EQ(findingOf(name), Finding::inUse);
    EXPECT_TRUE(next.hasFile());
}

TEST_F(StaleFiles, AreClearedByOneAtATime) {
    const PlantedEntry entry(name, "");
    const PlantedEntry other("other entry", "");
    const StaleFile file(name, folder());
    ASSERT_EQ(file.finding(), Finding::stale);
    EXPECT_EQ(findingOf(name), Finding::busy);
    EXPECT_EQ(findingOf(other.name()), Finding::busy);
    EXPECT_TRUE(entry.hasFile());
    EXPECT_TRUE(other.hasFile());
}

TEST_F(StaleFiles, HoldUpNobodyWhoLooksThemUpWhileTheyAreCleared) {
    const tests::DataPair data("a", "b");
    const PlantedEntry entry(tests::entryName(data, "tag", "key", tests::noProcess),
                             tests::segmentBytes(data));
    const Endpoint living(data, "tag", "living key");
    {
        const StaleFile stopped(entry.name(), folder());
        ASSERT_EQ(stopped.finding(), Finding::stale);
        EXPECT_EQ(Endpoint::find("tag", "key"), std::nullopt);
        EXPECT_EQ(Endpoint::list(), tests::DataPairs{data});
        EXPECT_TRUE(entry.hasFile());
    }
    EXPECT_EQ(Endpoint::find("tag", "key"), std::nullopt);
    EXPECT_FALSE(entry.hasFile());
    EXPECT_FALSE(entry.hasSegment());
}

TEST_F(StaleFiles, AreClearedByAnotherWhoComesInTime) {
    for (int round = 0; round < 100; ++round) {
        const PlantedEntry entry(name, "");
        std::optional<StaleFile> file(std::in_place, name, folder());
        ASSERT_EQ(file->finding(), Finding::stale);
        Finding second = Finding::inUse;
        std::thread other([&second] { second = findingOf(name); });
        file->remove();
        file.reset();
        other.join();
        EXPECT_EQ(second, Finding::nothingToClear);
    }
}

TEST_F(StaleFiles, LeaveNoDescriptorOpen) {
    const PlantedEntry free("free", "");
    PlantedEntry held("held", "");
    held.hold();
    const std::size_t before = tests::countDescriptors();
    for (const std::string file : {"free", "held", "missing"}) {
        findingOf(file);
    }
    EXPECT_EQ(tests::countDescriptors(), before);
}
