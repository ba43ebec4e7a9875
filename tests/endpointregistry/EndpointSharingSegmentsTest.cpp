#include "endpointregistry/Endpoint.h"

#include "sharedmemory/SegmentRecord.h"
#include "tests/endpointregistry/FoldersTools.h"
#include "tests/endpointregistry/LockedFileTools.h"
#include "tests/endpointregistry/SharingTools.h"
#include "tests/support/ForkedProcess.h"
#include "tests/support/TestAccounts.h"

#include <algorithm>
#include <cerrno>
#include <cstddef>
#include <filesystem>
#include <fstream>
#include <functional>
#include <gtest/gtest.h>
#include <optional>
#include <sched.h>
#include <stdexcept>
#include <string>
#include <sys/ipc.h>
#include <sys/shm.h>
#include <sys/stat.h>
#include <system_error>
#include <unistd.h>
#include <vector>

using namespace agent::spf::endpointregistry;
using tests::as;
using tests::DataPair;
using tests::DataPairs;
using tests::KernelSegment;
using tests::Sharer;

namespace {

namespace accounts = tests::accounts;
namespace fs = std::filesystem;
using accounts::anna;
using accounts::ben;
using accounts::carl;
using accounts::friends;
using agent::spf::sharedmemory::SegmentRecord;

const DataPair annas("data of", "anna");
const DataPair bens("data of", "ben");
const std::string tag = "tag";
const std::string key = "key";

[[noreturn]] void fail(const std::string& what) {
    throw std::system_error(errno, std::generic_category(), what);
}

/// The bytes of a segment while it lives.
class Attached {
public:
    explicit Attached(int id, int flags = 0)
        : address(::shmat(id, nullptr, flags)) {
        if (!isThere()) {
            fail("shmat");
        }
    }
    ~Attached() { ::shmdt(address); }
    Attached(const Attached&) = delete;
    Attached& operator=(const Attached&) = delete;

    char* bytes() const { return static_cast<char*>(address); }

private:
    bool isThere() const {
        // NOLINTNEXTLINE: the system's value for failure
        return address != reinterpret_cast<void*>(-1);
    }

    void* address;
};

/// What is in a segment, and who may do what with it.
struct Segment {
    std::string bytes;
    std::string group;
    mode_t mode;
};

std::string contentOf(const KernelSegment& segment) {
    return {Attached(segment.id, SHM_RDONLY).bytes(), segment.status.shm_segsz};
}

/// As root: what everything holds that a user has made, in ascending order.
std::vector<std::string> contentsMadeBy(const std::string& user) {
    std::vector<std::string> contents;
    for (const KernelSegment& segment : tests::kernelSegments()) {
        if (segment.status.shm_perm.cuid == accounts::userId(user)) {
            contents.push_back(contentOf(segment));
        }
    }
    std::sort(contents.begin(), contents.end());
    return contents;
}

/// Of the contents of a table's segments, that of its base and that of its container.
struct TableContents {
    explicit TableContents(const std::vector<std::string>& contents) {
        for (const std::string& content : contents) {
            (content.size() == tests::baseSize ? base : container) = content;
        }
    }

    std::string base;
    std::string container;
};

void change(int id, const std::string& group, mode_t mode) {
    shmid_ds status{};
    if (::shmctl(id, IPC_STAT, &status) != 0) {
        fail("shmctl");
    }
    status.shm_perm.gid = accounts::groupId(group);
    status.shm_perm.mode = static_cast<unsigned short>(mode);
    if (::shmctl(id, IPC_SET, &status) != 0) {
        fail("shmctl");
    }
}

/// Makes a segment and gives it to a group, as every owner may; returns its number.
int plant(const Segment& segment) {
    const int id = ::shmget(IPC_PRIVATE, segment.bytes.size(), IPC_CREAT | 0600);
    if (id == -1) {
        fail("shmget");
    }
    std::copy(segment.bytes.begin(), segment.bytes.end(), Attached(id).bytes());
    change(id, segment.group, segment.mode);
    return id;
}

/// What the segments of a table with one entry of anna's hold. They are gone again, but not their
/// records: those of the dead entry's table, which a killed machine leaves.
std::vector<std::string> contentsOfALostTable() {
    Sharer publisher(anna, annas, tag, key, {friends});
    std::vector<std::string> contents = contentsMadeBy(anna);
    EXPECT_EQ(contents.size(), 2U);
    publisher.kill();
    tests::logOut(anna);
    return contents;
}

/// carl cannot attach to any segment but his own.
void expectNothingAttachableByCarl() {
    as(carl, [] {
        for (const KernelSegment& segment : tests::kernelSegments()) {
            if (segment.status.shm_perm.cuid != ::geteuid()) {
                // NOLINTNEXTLINE: the system's value for failure
                EXPECT_EQ(::shmat(segment.id, nullptr, SHM_RDONLY), reinterpret_cast<void*>(-1));
                EXPECT_EQ(errno, EACCES);
            }
        }
    });
}

/// Expects that ben can share as if nobody had planted anything, and that nobody else can get at
/// what he shares.
void expectSharingWorks(const DataPairs& others = {}) {
    tests::ForkedProcess member([&](tests::Channel& test) {
        accounts::become(ben);
        EXPECT_EQ(Endpoint::list({friends}), others);
        DataPairs all = others;
        all.push_back(bens);
        Endpoint endpoint(bens, tag, key);
        endpoint.addTrustees({friends});
        EXPECT_EQ(Endpoint::list({friends}), all);
        test.send("shared");
        test.receive();
        endpoint.removeTrustees({friends});
        EXPECT_EQ(Endpoint::list({friends}), others);
    });
    EXPECT_EQ(member.channel().receive(), "shared");
    expectNothingAttachableByCarl();
    member.channel().send("end");
    EXPECT_EQ(member.waitForExit(), 0);
}

class EndpointSharingSegments : public tests::SharingTest {
protected:
    /// Lets anna exchange the record of the table's base for something else while an entry of hers
    /// lives in the table.
    static void withBaseRecordReplaced(const std::function<void(const std::string& path)>& replace,
                                       const std::function<void()>& body) {
        startAfresh();
        Sharer publisher(anna, annas, tag, key, {friends});
        as(anna, [&replace] {
            const std::string path = tests::baseRecord(friends);
            fs::remove(path);
            replace(path);
        });
        body();
        publisher.end();
        as(ben, [] { EXPECT_EQ(Endpoint::list({friends}), DataPairs()); });
        EXPECT_EQ(tests::sharedEntries(friends), tests::Names());
    }
};

void writeRecord(const std::string& path, const std::string& bytes, mode_t mode = 0440) {
    tests::makeFile(path, 0600);
    std::ofstream(path) << bytes;
    if (::chown(path.c_str(), static_cast<uid_t>(-1), accounts::groupId(friends)) != 0 ||
        ::chmod(path.c_str(), mode) != 0) {
        fail(path);
    }
}

std::string recordOf(int id) {
    SegmentRecord record;
    record.id = id;
    record.maker = ::getpid();
    record.token.fill('\1');
    const SegmentRecord::Bytes bytes = record.bytes();
    return {bytes.begin(), bytes.end()};
}

} // namespace

TEST_F(EndpointSharingSegments, OfAStrangerHaveNoEffectThoughTheyLookLikeTheGroups) {
    for (const mode_t mode : {0660U, 0666U, 0600U, 0711U}) {
        startAfresh();
        const std::vector<std::string> contents = contentsOfALostTable();
        as(carl, [&] {
            for (const std::string& content : contents) {
                plant({content, friends, mode});
            }
        });
        expectSharingWorks();
        EXPECT_EQ(contentsMadeBy(carl), contents);
    }
}

TEST_F(EndpointSharingSegments, OfAStrangerThatFillTheKernelHaveNoEffect) {
    constexpr std::size_t many = 100;
    const std::vector<std::string> looks = contentsOfALostTable();
    as(carl, [&looks] {
        for (std::size_t number = 0; number < many; ++number) {
            const std::string bytes =
                number % 3 == 2 ? std::string(1 + number, '\1') : looks.at(number % 3);
            const mode_t mode = number % 4 == 0 ? 0660 : number % 4 == 1 ? 0711 : 0666;
            plant({bytes, number % 5 == 0 ? carl : friends, mode});
        }
    });
    const std::vector<std::string> before = contentsMadeBy(carl);
    EXPECT_EQ(before.size(), many);
    for (int turn = 0; turn < 3; ++turn) {
        expectSharingWorks();
    }
    EXPECT_EQ(contentsMadeBy(carl), before);
}

TEST_F(EndpointSharingSegments, OfAStrangerDoNotHideATableThatThereIs) {
    Sharer publisher(anna, annas, tag, key, {friends});
    as(carl, [] {
        for (const std::size_t size : {tests::baseSize, std::size_t{100'000}}) {
            plant({std::string(size, '\0'), friends, 0660});
        }
    });
    expectSharingWorks({annas});
    publisher.end();
    as(ben, [] { EXPECT_EQ(Endpoint::list({friends}), DataPairs()); });
}

TEST_F(EndpointSharingSegments, OfAStrangerAreNotUsedThoughTheyGetTheTablesNumbers) {
    // The kernel numbers segments from the start again, as after a reboot.
    EXPECT_EQ(tests::runInChild([] {
                  const auto startNumbering = [] { ASSERT_EQ(::unshare(CLONE_NEWIPC), 0); };
                  const auto numbers = [] {
                      std::vector<int> ids;
                      for (const KernelSegment& segment : tests::kernelSegments()) {
                          ids.push_back(segment.id);
                      }
                      return ids;
                  };
                  startNumbering();
                  Sharer publisher(anna, annas, tag, key, {friends});
                  std::vector<std::string> contents = contentsMadeBy(anna);
                  const std::vector<int> ids = numbers();
                  ASSERT_EQ(ids.size(), 2U);
                  // He cannot know the random bits behind the rest.
                  for (std::string& content : contents) {
                      content.back() = static_cast<char>(content.back() + 1);
                  }
                  const TableContents planted(contents);
                  startNumbering();
                  // The number of the container before is free again, as in the table's making.
                  as(carl, [&] {
                      for (int number = 0; number <= ids.back(); ++number) {
                          const bool isBase = number == ids.front();
                          plant({isBase ? planted.base : planted.container, friends, 0660});
                      }
                  });
                  EXPECT_EQ(numbers().front(), ids.front());
                  const std::vector<std::string> before = contentsMadeBy(carl);
                  as(ben, [] {
                      EXPECT_EQ(tests::rowsOf(friends), tests::Rows());
                      EXPECT_EQ(Endpoint::list({friends}), DataPairs{annas});
                  });
                  expectSharingWorks({annas});
                  EXPECT_EQ(contentsMadeBy(carl), before);
                  publisher.end();
              }),
              0);
}

TEST_F(EndpointSharingSegments, OfAMemberThatLetOthersInAreNotUsed) {
    for (const mode_t mode : {0666U, 0664U, 0662U}) {
        startAfresh();
        Sharer publisher(anna, annas, tag, key, {friends});
        as(anna, [mode] {
            for (const KernelSegment& segment : tests::kernelSegments()) {
                change(segment.id, friends, mode);
            }
        });
        const std::vector<std::string> before = contentsMadeBy(anna);
        tests::ForkedProcess member([](tests::Channel& test) {
            accounts::become(ben);
            EXPECT_EQ(tests::rowsOf(friends), tests::Rows());
            EXPECT_EQ(Endpoint::list({friends}), DataPairs{annas});
            Endpoint endpoint(bens, tag, key);
            endpoint.addTrustees({friends});
            EXPECT_EQ(Endpoint::list({friends}), (DataPairs{annas, bens}));
            test.send("shared");
            test.receive();
        });
        EXPECT_EQ(member.channel().receive(), "shared");
        for (const std::string& content : contentsMadeBy(anna)) {
            EXPECT_EQ(content.find("ben"), std::string::npos);
        }
        EXPECT_EQ(contentsMadeBy(anna), before);
        member.channel().send("end");
        EXPECT_EQ(member.waitForExit(), 0);
        publisher.end();
        as(ben, [] { EXPECT_EQ(Endpoint::list({friends}), DataPairs()); });
    }
}

TEST_F(EndpointSharingSegments, AreMadeAfreshWhereARecordIsNoneOrNamesNoneOfTheGroups) {
    const TableContents contents(contentsOfALostTable());
    for (const std::string& bytes :
         {std::string(), std::string("x"), std::string(SegmentRecord::size, '\0'),
          recordOf(SegmentRecord::noSegment), recordOf(-7), recordOf(1 << 30), recordOf(0),
          recordOf(0) + "x", recordOf(0).substr(1)}) {
        withBaseRecordReplaced(
            [&](const std::string& path) {
                // Number 0, or a low one, is of a segment of the right look with other bits.
                plant({contents.base, friends, 0660});
                writeRecord(path, bytes);
            },
            [] {
                as(ben, [] { EXPECT_EQ(tests::rowsOf(friends), tests::Rows()); });
                expectSharingWorks({annas});
                expectSharingWorks({annas});
            });
    }
}

TEST_F(EndpointSharingSegments, AreMadeAfreshWhereOthersThanItsOwnerMayWriteToARecord) {
    for (const mode_t mode : {0460U, 0442U, 0664U}) {
        startAfresh();
        Sharer publisher(anna, annas, tag, key, {friends});
        ASSERT_EQ(::chmod(tests::baseRecord(friends).c_str(), mode), 0);
        as(ben, [] { EXPECT_EQ(tests::rowsOf(friends), tests::Rows()); });
        expectSharingWorks({annas});
        EXPECT_EQ(tests::modeOf(tests::baseRecord(friends)), 0440U);
        publisher.end();
    }
}

TEST_F(EndpointSharingSegments, AreNotLookedForBehindWhatIsNoFileNorHideWhatLives) {
    const std::string target = "/home/Shared/target";
    const std::vector<std::function<void(const std::string&)>> plants{
        [](const std::string& path) { fs::create_directory(path); },
        [](const std::string& path) { ASSERT_EQ(::mkfifo(path.c_str(), 0660), 0); },
        [&](const std::string& path) {
            fs::remove(target);
            writeRecord(target, recordOf(0));
            fs::create_symlink(target, path);
        },
        [](const std::string& path) { fs::create_symlink("nowhere", path); },
    };
    for (const auto& plant : plants) {
        withBaseRecordReplaced(plant, [] {
            as(ben, [] {
                EXPECT_EQ(Endpoint::list({friends}), DataPairs{annas});
                EXPECT_EQ(Endpoint::findFromAllTrustees(tag, key), annas);
                Endpoint endpoint(bens, tag, key);
                EXPECT_THROW(endpoint.addTrustees({friends}), std::runtime_error);
                EXPECT_EQ(Endpoint::find(tag, key), bens);
                EXPECT_EQ(Endpoint::list({friends}), DataPairs{annas});
            });
            fs::remove_all(tests::baseRecord(friends));
            expectSharingWorks({annas});
        });
    }
    EXPECT_FALSE(fs::exists("nowhere"));
}

TEST_F(EndpointSharingSegments, OfADeletedTableAreMadeAfresh) {
    Sharer publisher(anna, annas, tag, key, {friends});
    for (const KernelSegment& segment : tests::kernelSegments()) {
        ::shmctl(segment.id, IPC_RMID, nullptr);
    }
    expectSharingWorks({annas});
    publisher.remove({friends});
    publisher.add({friends});
    as(ben, [] { EXPECT_EQ(Endpoint::list({friends}), DataPairs{annas}); });
    publisher.end();
    as(ben, [] { EXPECT_EQ(Endpoint::list({friends}), DataPairs()); });
}
