#include "endpointregistry/Endpoint.h"

#include "sharedmemory/SegmentName.h"
#include "tests/endpointregistry/LockedFileTools.h"
#include "tests/endpointregistry/SharingTools.h"
#include "tests/support/ForkedProcess.h"
#include "tests/support/TestAccounts.h"

#include <algorithm>
#include <cerrno>
#include <cstddef>
#include <gtest/gtest.h>
#include <optional>
#include <stdexcept>
#include <string>
#include <sys/ipc.h>
#include <sys/shm.h>
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
namespace sharedmemory = agent::spf::sharedmemory;
using accounts::anna;
using accounts::ben;
using accounts::carl;
using accounts::friends;

const DataPair data("data of", "anna");
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

/// What a segment is known by and what is in it.
struct Content {
    key_t key;
    std::string bytes;

    bool operator==(const Content&) const = default;
};

Content contentOf(const KernelSegment& segment) {
    const Attached attached(segment.id, SHM_RDONLY);
    return {segment.status.shm_perm.__key, {attached.bytes(), segment.status.shm_segsz}};
}

/// As root: everything that a user has made.
std::vector<Content> contentsMadeBy(const std::string& user) {
    std::vector<Content> contents;
    for (const KernelSegment& segment : tests::kernelSegments()) {
        if (segment.status.shm_perm.cuid == accounts::userId(user)) {
            contents.push_back(contentOf(segment));
        }
    }
    return contents;
}

/// Makes a segment and says that it is the group's, as every owner may.
void plant(const Content& content, mode_t mode) {
    const int id = ::shmget(content.key, content.bytes.size(), IPC_CREAT | IPC_EXCL | 0600);
    if (id == -1) {
        fail("shmget");
    }
    std::copy(content.bytes.begin(), content.bytes.end(), Attached(id).bytes());
    shmid_ds status{};
    if (::shmctl(id, IPC_STAT, &status) != 0) {
        fail("shmctl");
    }
    status.shm_perm.gid = accounts::groupId(friends);
    status.shm_perm.mode = static_cast<unsigned short>(mode);
    if (::shmctl(id, IPC_SET, &status) != 0) {
        fail("shmctl");
    }
}

/// The segments of a table with one entry of anna's, whom nobody has met yet. They are gone again.
std::vector<Content> contentsOfATable() {
    Sharer publisher(anna, data, tag, key, {friends});
    std::vector<Content> contents = contentsMadeBy(anna);
    EXPECT_EQ(contents.size(), 2U);
    publisher.end();
    for (const KernelSegment& segment : tests::kernelSegments()) {
        ::shmctl(segment.id, IPC_RMID, nullptr);
    }
    return contents;
}

/// Something under every number that the table's segments are looked for by.
std::vector<Content> contentsUnderAllKeys(const std::string& bytes) {
    std::vector<Content> contents;
    for (const std::string suffix : {"v0", "v01", "v02"}) {
        const std::string identity = sharedmemory::segmentIdentityOf(
            tests::tableName + suffix, friends, accounts::userId(anna));
        for (const int number : sharedmemory::segmentKeysOf(identity)) {
            contents.push_back({number, bytes});
        }
    }
    return contents;
}

/// But for what was planted, which is nobody's secret.
void expectNothingAttachableByCarl(const std::string& planter) {
    const uid_t exempt = accounts::userId(planter);
    as(carl, [exempt] {
        for (const KernelSegment& segment : tests::kernelSegments()) {
            if (segment.status.shm_perm.cuid != exempt) {
                // NOLINTNEXTLINE: the system's value for failure
                EXPECT_EQ(::shmat(segment.id, nullptr, SHM_RDONLY), reinterpret_cast<void*>(-1));
                EXPECT_EQ(errno, EACCES);
            }
        }
    });
}

/// Shares an entry, and tells whether that went.
bool share(Endpoint& endpoint) {
    try {
        endpoint.addTrustees({friends});
        return true;
    } catch (const std::runtime_error&) {
        return false;
    }
}

enum class Sharing { works, worksOrIsRefused };

class EndpointSharingSegments : public tests::SharingTest {
protected:
    /// Lets a user plant segments, and expects that nobody uses them.
    static void expectUnused(const std::string& planter, const std::vector<Content>& contents,
                             mode_t mode, Sharing sharing) {
        as(planter, [&] {
            for (const Content& content : contents) {
                plant(content, mode);
            }
        });
        const std::vector<Content> before = contentsMadeBy(planter);
        ASSERT_EQ(before.size(), contents.size());
        tests::ForkedProcess member([&](tests::Channel& test) {
            accounts::become(ben);
            const DataPairs own{{"data of", "ben"}};
            Endpoint endpoint(own.front(), tag, key);
            const bool isShared = share(endpoint);
            EXPECT_TRUE(isShared || sharing == Sharing::worksOrIsRefused);
            if (isShared) {
                EXPECT_EQ(Endpoint::list({friends}), own);
            }
            EXPECT_EQ(Endpoint::find(tag, key), own.front());
            test.send("shared, or refused");
            test.receive();
        });
        member.channel().receive();
        EXPECT_EQ(contentsMadeBy(planter), before);
        expectNothingAttachableByCarl(planter);
        member.channel().send("end");
        EXPECT_EQ(member.waitForExit(), 0);
        EXPECT_EQ(contentsMadeBy(planter), before);
    }
};

} // namespace

TEST_F(EndpointSharingSegments, OfAStrangerAreSteppedOverThoughTheyLookLikeTheGroups) {
    for (const mode_t mode : {0660U, 0666U, 0600U, 0711U}) {
        clearMachine();
        tests::provideSharedFolder();
        expectUnused(carl, contentsOfATable(), mode, Sharing::works);
    }
}

TEST_F(EndpointSharingSegments, OfAStrangerUnderAllNumbersAreNotUsed) {
    for (const std::size_t size : {1U, 56U, 100'000U}) {
        clearMachine();
        tests::provideSharedFolder();
        expectUnused(carl, contentsUnderAllKeys(std::string(size, '\1')), 0660,
                     Sharing::worksOrIsRefused);
        clearMachine();
        tests::provideSharedFolder();
        expectUnused(carl, contentsUnderAllKeys(std::string(size, '\0')), 0711,
                     Sharing::worksOrIsRefused);
    }
}

TEST_F(EndpointSharingSegments, OfAMemberThatLetOthersInAreNotUsed) {
    for (const mode_t mode : {0666U, 0664U, 0662U}) {
        clearMachine();
        tests::provideSharedFolder();
        expectUnused(anna, contentsOfATable(), mode, Sharing::worksOrIsRefused);
    }
}

TEST_F(EndpointSharingSegments, OfAStrangerDoNotHideATableThatThereIs) {
    Sharer publisher(anna, data, tag, key, {friends});
    as(carl, [] {
        // Where the table's own segments are not, there is still room.
        for (const Content& content : contentsUnderAllKeys(std::string(100, '\0'))) {
            if (::shmget(content.key, 0, 0) == -1 && errno == ENOENT) {
                plant(content, 0660);
            }
        }
    });
    as(ben, [] { EXPECT_EQ(Endpoint::list({friends}), DataPairs{data}); });
    publisher.end();
    as(ben, [] { EXPECT_EQ(Endpoint::list({friends}), DataPairs()); });
}

TEST_F(EndpointSharingSegments, OfAStrangerAreNoTableToLookUpsOfMembers) {
    const std::vector<Content> contents = contentsOfATable();
    as(carl, [&contents] {
        for (const Content& content : contents) {
            plant(content, 0660);
        }
    });
    as(ben, [] {
        EXPECT_EQ(tests::rowsOf(friends), tests::Rows());
        EXPECT_EQ(Endpoint::list({friends}), DataPairs());
        EXPECT_EQ(Endpoint::findFromAllTrustees(tag, key), std::nullopt);
    });
    EXPECT_EQ(contentsMadeBy(carl), contents);
}

TEST_F(EndpointSharingSegments, OfADeletedTableAreMadeAfresh) {
    Sharer publisher(anna, data, tag, key, {friends});
    // As a login manager does to users who have logged out.
    for (const KernelSegment& segment : tests::kernelSegments()) {
        ::shmctl(segment.id, IPC_RMID, nullptr);
    }
    as(ben, [] {
        EXPECT_EQ(Endpoint::list({friends}), DataPairs());
        Endpoint endpoint({"data of", "ben"}, tag, key);
        endpoint.addTrustees({friends});
        EXPECT_EQ(Endpoint::list({friends}), (DataPairs{{"data of", "ben"}}));
    });
    publisher.remove({friends});
    publisher.add({friends});
    as(ben, [] { EXPECT_EQ(Endpoint::list({friends}), DataPairs{data}); });
    publisher.end();
}
