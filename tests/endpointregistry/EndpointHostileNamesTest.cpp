#include "endpointregistry/Endpoint.h"
#include "endpointregistry/EntryName.h"
#include "foundation/os/FileDescriptor.h"
#include "tests/endpointregistry/EndpointTools.h"
#include "tests/endpointregistry/LockedFileTools.h"
#include "tests/support/ForkedProcess.h"

#include <filesystem>
#include <gtest/gtest.h>
#include <string>
#include <sys/file.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>
#include <vector>

using namespace agent::spf::endpointregistry;
using namespace std::string_literals;
using foundation::os::FileDescriptor;
using tests::DataPair;
using tests::DataPairs;
using tests::PlantedEntry;

namespace {

namespace fs = std::filesystem;

const std::string tag = "tag";
const std::string key = "key";
const DataPair honest("honest", "data");

/// What every name that a lookup for the tag and the key considers begins with.
std::string start() {
    return getGroupTagPrefix(tag) + getSelectedKeySubstring(key);
}

/// A name with these numbers, or what stands for numbers.
std::string nameOf(const std::string& length, const std::string& process,
                   const std::string& version) {
    return start().append("l").append(length).append("p").append(process).append("v").append(
        version);
}

const std::string gone = std::to_string(tests::noProcess);

/// Names that no publisher makes.
std::vector<std::string> strangeNames() {
    std::vector<std::string> names{start(), start() + std::string(255 - start().size(), 'a')};
    for (const char* const end : {"l", "lpv", "l3", "v0", "p1v0", "l3p1v", "\xff\xfe l3 p 1 v 0"}) {
        names.push_back(start() + end);
    }
    const std::string living = std::to_string(::getppid());
    for (const std::string& number :
         {"-1"s, "-0"s, "0"s, "4294967297"s, "1099511627776"s, "9223372036854775807"s,
          "18446744073709551599"s, "18446744073709551600"s, "18446744073709551615"s,
          "99999999999999999999999"s, std::string(120, '9')}) {
        names.push_back(nameOf(number, living, "0"));
        names.push_back(nameOf(number, gone, "0"));
        names.push_back(nameOf("3", number, "0"));
        names.push_back(nameOf("3", living, number));
    }
    return names;
}

/// Expects lookups to see the honest entry and nothing else. In a child, whose end has a limit:
/// what a lookup must not do is hang, too.
void expectOnlyTheHonestEntryIsFound() {
    EXPECT_EQ(tests::runInChild([] {
                  EXPECT_EQ(Endpoint::list(), DataPairs{honest});
                  EXPECT_EQ(Endpoint::filter(tag), DataPairs{honest});
                  EXPECT_EQ(Endpoint::find(tag, key), honest);
                  EXPECT_EQ(Endpoint::find(tag, "other key"), std::nullopt);
              }),
              0);
}

class HostileName : public tests::RegistryTest {
protected:
    void SetUp() override {
        RegistryTest::SetUp();
        tests::provideEntryFolder();
        entry = Endpoint(honest, tag, key);
    }
    void TearDown() override {
        EXPECT_EQ(Endpoint::find(tag, key), honest);
        entry.reset();
        fs::remove_all(tests::entryFolder());
        for (const std::string& name : tests::segmentFiles()) {
            fs::remove("/dev/shm/" + name);
        }
    }

private:
    Endpoint entry;
};

} // namespace

TEST_F(HostileName, OfAFileFindsNothing) {
    for (const std::string& name : strangeNames()) {
        tests::makeFile(tests::entryPath(name), 0400);
    }
    expectOnlyTheHonestEntryIsFound();
}

TEST_F(HostileName, OfALockedFileFindsNothing) {
    std::vector<FileDescriptor> files;
    for (const std::string& name : strangeNames()) {
        tests::makeFile(tests::entryPath(name), 0400);
        files.push_back(tests::openFile(tests::entryPath(name)));
        ASSERT_EQ(::flock(files.back().get(), LOCK_EX | LOCK_NB), 0);
    }
    expectOnlyTheHonestEntryIsFound();
    EXPECT_EQ(tests::entryFiles().size(), files.size() + 1);
}

TEST_F(HostileName, OfASegmentThatIsSmallerThanItSaysFindsNothing) {
    const std::string living = std::to_string(::getppid());
    for (const char* const number : {"1099511627776", "9223372036854775807", "18446744073709551599",
                                     "18446744073709551615", "99999999999999999999999", "-1"}) {
        const std::string name = nameOf(number, living, "0");
        tests::makeFile(tests::entryPath(name), 0400);
        tests::plantSegment(name, tests::segmentBytes({"some", "data"}));
    }
    expectOnlyTheHonestEntryIsFound();
}

TEST_F(HostileName, OfAFolderFindsNothingAndKeepsIt) {
    for (const std::string& name : strangeNames()) {
        fs::create_directory(tests::entryPath(name));
    }
    expectOnlyTheHonestEntryIsFound();
    EXPECT_EQ(tests::entryFiles().size(), strangeNames().size() + 1);
}

TEST_F(HostileName, OfAPipeFindsNothingAndKeepsIt) {
    for (const std::string& name : strangeNames()) {
        ASSERT_EQ(::mkfifo(tests::entryPath(name).c_str(), 0600), 0);
    }
    expectOnlyTheHonestEntryIsFound();
    EXPECT_EQ(tests::entryFiles().size(), strangeNames().size() + 1);
}

TEST_F(HostileName, OfASocketFindsNothingAndKeepsIt) {
    const std::string name = nameOf("3", "1", "0");
    const FileDescriptor socket(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    const std::string path = "/dev/shm/socket";
    path.copy(static_cast<char*>(address.sun_path), path.size());
    ASSERT_EQ(::bind(socket.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address), 0);
    fs::rename(path, tests::entryPath(name));
    expectOnlyTheHonestEntryIsFound();
    EXPECT_TRUE(fs::is_socket(tests::entryPath(name)));
}

TEST_F(HostileName, OfALinkFindsNothingAndKeepsItAndItsTarget) {
    const std::string target = tests::entryFolder() + "target";
    tests::makeFile(target, 0600);
    fs::create_symlink(target, tests::entryPath(nameOf("3", gone, "0")));
    fs::create_symlink("missing", tests::entryPath(nameOf("4", gone, "0")));
    fs::create_symlink(nameOf("5", gone, "0"), tests::entryPath(nameOf("5", gone, "0")));
    fs::create_symlink("/", tests::entryPath(nameOf("6", gone, "0")));
    expectOnlyTheHonestEntryIsFound();
    EXPECT_EQ(tests::entryFiles().size(), 6U);
    EXPECT_TRUE(fs::is_regular_file(target));
    EXPECT_FALSE(fs::exists(tests::entryPath("missing")));
}

TEST_F(HostileName, OfALinkToALivingEntryDoesNotGiveItsData) {
    const std::string living = tests::entryName(honest, tag, key, ::getpid());
    const std::string link = tests::entryName(honest, tag, "other key", ::getpid());
    fs::create_symlink(living, tests::entryPath(link));
    fs::create_symlink(fs::path(tests::segmentPath(living)).filename(), tests::segmentPath(link));
    expectOnlyTheHonestEntryIsFound();
    fs::remove(tests::segmentPath(link));
}

TEST_F(HostileName, IsNoSynonymWhenItIsNoLockedFile) {
    const std::string prefix = getGroupTagPrefix(tag) + getSelectedKeySubstring("new key");
    tests::makeFile(tests::entryPath(prefix), 0400);
    fs::create_directory(tests::entryPath(prefix + "l1"));
    ASSERT_EQ(::mkfifo(tests::entryPath(prefix + "l2").c_str(), 0600), 0);
    fs::create_symlink("missing", tests::entryPath(prefix + "l3"));
    EXPECT_TRUE(Endpoint({"other", "data"}, tag, "new key"));
}

TEST_F(HostileName, WithoutTheRegistrysMarkIsNotLookedAt) {
    const PlantedEntry entry("qvElsewhere", "");
    expectOnlyTheHonestEntryIsFound();
    EXPECT_TRUE(entry.hasFile());
}
