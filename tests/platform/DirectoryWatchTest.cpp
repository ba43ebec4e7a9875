#include "foundation/os/DirectoryWatch.h"

#include "foundation/os/AtomicFile.h"
#include "foundation/os/FileDescriptor.h"
#include "foundation/os/HighDescriptor.h"
#include "foundation/os/SystemLimits.h"
#include "foundation/os/TemporaryName.h"
#include "foundation/os/WakeUp.h"
#include "tests/endpointregistry/FoldersTools.h"

#include <cerrno>
#include <chrono>
#include <fcntl.h>
#include <filesystem>
#include <gtest/gtest.h>
#include <optional>
#include <poll.h>
#include <string>
#include <sys/stat.h>
#include <unistd.h>
#include <utility>
#include <vector>

namespace {

namespace fs = std::filesystem;
namespace os = foundation::os;
using namespace std::chrono_literals;
using Kind = os::DirectoryChange::Kind;
using std::chrono::steady_clock;

/// A change, without what only lives as long as it is told.
struct Change {
    Kind kind;
    std::string name;

    bool operator==(const Change&) const = default;
};

void PrintTo(const Change& change, std::ostream* out) {
    *out << static_cast<int>(change.kind) << " " << change.name;
}

using Changes = std::vector<Change>;

class WatchedDirectory : public testing::Test {
protected:
    void SetUp() override {
        ASSERT_TRUE(watch);
        number = watch.add(folder);
        ASSERT_TRUE(number);
    }

    Changes changes() {
        Changes seen;
        while (watch.read([&](const os::DirectoryChange& change) {
            EXPECT_EQ(change.watch, *number);
            seen.push_back({change.kind, change.inode ? "#" + std::to_string(*change.inode)
                                                      : std::string(change.name)});
        }) != 0) {
        }
        return seen;
    }

    const tests::ScratchFolder scratch;
    const std::string folder = [this] {
        fs::create_directory(scratch / "watched");
        return scratch / "watched";
    }();
    os::DirectoryWatch watch;
    std::optional<int> number;
};

os::FileDescriptor make(const std::string& path) {
    return os::FileDescriptor(::open(path.c_str(), O_CREAT | O_RDWR | O_CLOEXEC, 0600));
}

bool isReadable(int descriptor) {
    pollfd request{descriptor, POLLIN, 0};
    return ::poll(&request, 1, 0) == 1;
}

} // namespace

TEST_F(WatchedDirectory, TellsWhatAppearsAndVanishes) {
    const std::string path = folder + "/file";
    EXPECT_FALSE(isReadable(watch.descriptor()));
    EXPECT_EQ(watch.pending(), 0U);
    make(path);
    EXPECT_TRUE(isReadable(watch.descriptor()));
    EXPECT_GT(watch.pending(), 0U);
    EXPECT_EQ(changes(), (Changes{{Kind::appeared, "file"}, {Kind::closed, "file"}}));
    fs::rename(path, folder + "/other");
    EXPECT_EQ(changes(), (Changes{{Kind::vanished, "file"}, {Kind::appeared, "other"}}));
    fs::remove(folder + "/other");
    EXPECT_EQ(changes(), (Changes{{Kind::vanished, "other"}}));
    EXPECT_EQ(changes(), Changes());
}

TEST_F(WatchedDirectory, TellsNothingOfReaders) {
    const std::string path = folder + "/file";
    make(path);
    changes();
    const os::FileDescriptor reader(::open(path.c_str(), O_RDONLY | O_CLOEXEC));
    EXPECT_TRUE(reader);
    EXPECT_EQ(changes(), Changes());
}

TEST_F(WatchedDirectory, TellsThatAttributesWereSet) {
    const std::string path = folder + "/file";
    make(path);
    changes();
    ASSERT_EQ(::utimensat(AT_FDCWD, path.c_str(), nullptr, 0), 0);
    EXPECT_EQ(changes(), (Changes{{Kind::touched, "file"}}));
}

TEST_F(WatchedDirectory, TellsThatItsOwnAttributesWereSet) {
    ASSERT_EQ(::chmod(folder.c_str(), 0700), 0);
    EXPECT_EQ(changes(), (Changes{{Kind::touched, ""}}));
}

TEST_F(WatchedDirectory, TellsWhenTheLastCopyIsClosedByWhichAFileWasMade) {
    const std::string path = folder + "/file";
    os::AtomicFile file = os::createFileAtomically(path, 0400, [](int) { return 0; });
    ASSERT_EQ(file.error, 0);
    os::FileDescriptor copy(::fcntl(file.descriptor.get(), F_DUPFD_CLOEXEC, 0));
    changes();
    file.descriptor.reset();
    EXPECT_EQ(changes(), Changes());
    copy.reset();
    const Changes seen = changes();
    ASSERT_EQ(seen.size(), 1U);
    EXPECT_EQ(seen.front().kind, Kind::closed);
    // By its inode or, where it was made under a hidden name, by the one that it has got.
    if (seen.front().name != "file") {
        EXPECT_EQ(seen.front().name, "#" + std::to_string(file.identity->inode));
    }
}

TEST_F(WatchedDirectory, TellsTheNameBehindAHiddenOne) {
    const std::string hidden = os::TemporaryName(os::PathAt(folder + "/file"), 0).get();
    os::FileDescriptor file = make(hidden);
    ASSERT_EQ(::link(hidden.c_str(), (folder + "/file").c_str()), 0);
    ASSERT_EQ(::unlink(hidden.c_str()), 0);
    changes();
    file.reset();
    EXPECT_EQ(changes(), (Changes{{Kind::closed, "file"}}));
}

TEST_F(WatchedDirectory, SaysSoWhereAHiddenNameTellsNothing) {
    make(folder + "/.nascent-1234");
    const Changes seen = changes();
    ASSERT_EQ(seen.size(), 2U);
    EXPECT_EQ(seen.back().kind, Kind::lost);
}

TEST_F(WatchedDirectory, TellsWhenItIsMovedOrRemoved) {
    fs::rename(folder, scratch / "moved");
    EXPECT_EQ(changes(), (Changes{{Kind::moved, ""}}));
    fs::remove(scratch / "moved");
    EXPECT_EQ(changes().front(), (Change{Kind::moved, ""}));
}

TEST_F(WatchedDirectory, HasOneNumberHoweverOftenItIsAdded) {
    EXPECT_EQ(watch.add(folder), number);
    make(folder + "/file");
    EXPECT_EQ(changes().size(), 2U);
}

TEST_F(WatchedDirectory, TellsNothingMoreOnceItIsNoLongerWatched) {
    watch.remove(*number);
    make(folder + "/file");
    for (const Change& change : changes()) {
        EXPECT_EQ(change.kind, Kind::moved);
    }
}

TEST_F(WatchedDirectory, MustBeADirectoryAndNoLinkUnlessThatIsWanted) {
    make(scratch / "file");
    EXPECT_EQ(watch.add(scratch / "file"), std::nullopt);
    EXPECT_EQ(errno, ENOTDIR);
    EXPECT_EQ(watch.add(scratch / "missing"), std::nullopt);
    EXPECT_EQ(errno, ENOENT);
    fs::create_symlink(folder, scratch / "link");
    EXPECT_EQ(watch.add(scratch / "link"), std::nullopt);
    EXPECT_EQ(watch.add(scratch / "link", os::DirectoryWatch::Links::followed), number);
}

TEST(HiddenName, HoldsTheNameBackwardsWhereItFits) {
    const std::string hidden = os::TemporaryName(os::PathAt("/folder/entry"), 0).where().name;
    EXPECT_EQ(hidden.substr(0, 17), "/folder/.nascent-");
    EXPECT_EQ(hidden.find("entry"), std::string::npos);
    EXPECT_EQ(os::nameBehindTemporary(hidden.substr(8)), "entry");
    const std::string longest(255, 'x');
    const std::string without = os::TemporaryName(os::PathAt(longest), 0).where().name;
    EXPECT_LT(without.size(), longest.size());
    EXPECT_EQ(os::nameBehindTemporary(without), "");
}

TEST(WakeUp, IsReadableWhenWhatItWaitsForIs) {
    os::DirectoryWatch watch;
    const tests::ScratchFolder scratch;
    ASSERT_TRUE(watch.add(scratch / ""));
    os::WakeUp wakeUp(watch.descriptor());
    ASSERT_TRUE(wakeUp);
    EXPECT_EQ(wakeUp.wait(0ns), os::WakeUp::Reason::timeOut);
    make(scratch / "file");
    EXPECT_EQ(wakeUp.wait(1min), os::WakeUp::Reason::readable);
}

TEST(WakeUp, IsReadableForAsLongAsItIsCalled) {
    const os::DirectoryWatch watch;
    os::WakeUp wakeUp(watch.descriptor());
    for (int round = 0; round < 3; ++round) {
        wakeUp.call(true);
        wakeUp.call(true);
        EXPECT_TRUE(isReadable(wakeUp.descriptor()));
        wakeUp.call(false);
        EXPECT_FALSE(isReadable(wakeUp.descriptor()));
    }
}

TEST(WakeUp, IsReadableFromTheTimeOnThatWasSet) {
    const os::DirectoryWatch watch;
    os::WakeUp wakeUp(watch.descriptor());
    wakeUp.setAlarm(steady_clock::now() + 24h);
    EXPECT_FALSE(isReadable(wakeUp.descriptor()));
    wakeUp.setAlarm(steady_clock::now() + 1ms);
    EXPECT_EQ(wakeUp.wait(4min), os::WakeUp::Reason::readable);
    EXPECT_TRUE(isReadable(wakeUp.descriptor()));
    wakeUp.setAlarm(std::nullopt);
    EXPECT_FALSE(isReadable(wakeUp.descriptor()));
    wakeUp.setAlarm(steady_clock::time_point());
    EXPECT_EQ(wakeUp.wait(4min), os::WakeUp::Reason::readable);
}

TEST(HighDescriptor, IsAboveThoseOfTheStandardStreams) {
    const os::FileDescriptor high = os::liftDescriptor(os::FileDescriptor(::dup(0)));
    EXPECT_GT(high.get(), 2);
    EXPECT_FALSE(os::liftDescriptor(os::FileDescriptor()));
}

TEST(SystemLimits, AreToldByNameAndValue) {
    EXPECT_EQ(os::describeLowest({"no.such.limit"}), "no.such.limit (?)");
    const std::string lowest = os::describeLowest({"kernel.pid_max", "kernel.no_such_limit"});
    EXPECT_EQ(lowest.substr(0, 16), "kernel.pid_max (");
    EXPECT_EQ(os::reasonForNoDescriptor(EACCES), "error " + std::to_string(EACCES));
}
