#include "tests/platform/SysVTools.h"

#include <climits>
#include <fcntl.h>
#include <filesystem>
#include <functional>
#include <gtest/gtest.h>
#include <sched.h>
#include <stdexcept>
#include <string>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>
#include <vector>

namespace {

namespace accounts = tests::accounts;
namespace fs = std::filesystem;
namespace sysv = tests::sysv;
using agent::spf::sharedmemory::SegmentRecord;
using agent::spf::sharedmemory::SegmentToken;
using sysv::as;
using sysv::createForFriends;
using sysv::createOrFindForFriends;
using sysv::findForFriends;
using sysv::useTheServiceForFriends;
using tests::bytesOf;
using tests::SharedMemory;

/// What may stand under the name of a segment of the friends', by a mistake or by a member's
/// malice.
class SysVRecords : public sysv::SysVUsersTest {
protected:
    void SetUp() override {
        SysVUsersTest::SetUp();
        if (!IsSkipped()) {
            as(accounts::anna, useTheServiceForFriends); // Makes the folder.
            friends = accounts::groupId(accounts::friends);
            annasId = accounts::userId(accounts::anna);
        }
    }

    static std::string path() { return sysv::recordOf("name", accounts::friends); }

    /// Gives what stands under the name to anna.
    void giveToAnna() const {
        sysv::demand(::lchown(path().c_str(), annasId, friends) == 0, "lchown");
    }

    void plantFile(const std::string& content, mode_t mode = 0440) const {
        sysv::writeFile(path(), content, mode);
        giveToAnna();
    }

    void plantRecord(const SegmentRecord& record, mode_t mode = 0440) const {
        sysv::writeRecord(path(), record, mode);
        giveToAnna();
    }

    /// A segment of anna's that has her friends' group.
    int plantSegment(const std::string& content, mode_t mode = 0660) const {
        int id = 0;
        as(accounts::anna, [&] { sysv::plant(0600, content); });
        id = sysv::onlySegment().id;
        sysv::giveTo(id, annasId, friends, mode);
        return id;
    }

    /// What stands there is no segment, and ben's takes its place.
    static void expectReplaced() {
        as(accounts::ben, [] {
            EXPECT_FALSE(findForFriends("name").isAttached());
            const SharedMemory made = createForFriends("name");
            ASSERT_TRUE(made.isCreator());
            EXPECT_TRUE(tests::isZero(bytesOf(made)));
            EXPECT_TRUE(made.isStillNamed());
            EXPECT_TRUE(findForFriends("name").isAttached());
        });
        as(accounts::anna, useTheServiceForFriends);
        EXPECT_EQ(sysv::allRecords(), std::vector<std::string>());
    }

    /// What stands there is left alone, whoever it keeps from making a segment.
    static void expectInTheWay() {
        struct stat before {};
        ASSERT_EQ(::lstat(path().c_str(), &before), 0);
        for (const std::string& member : {accounts::ben, accounts::anna}) {
            as(member, [] {
                EXPECT_FALSE(findForFriends("name").isAttached());
                EXPECT_THROW(createForFriends("name"), std::runtime_error);
                EXPECT_THROW(createOrFindForFriends("name"), std::runtime_error);
                EXPECT_TRUE(createForFriends("other").isCreator());
            });
        }
        struct stat after {};
        ASSERT_EQ(::lstat(path().c_str(), &after), 0);
        EXPECT_EQ(after.st_ino, before.st_ino);
        EXPECT_EQ(sysv::segments().size(), 0U);
        EXPECT_EQ(sysv::hiddenRecords().size(), 0U);
    }

    gid_t friends = 0;
    uid_t annasId = 0;
};

std::string bytesOfRecord(const SegmentRecord& record) {
    const auto bytes = record.bytes();
    return {bytes.begin(), bytes.end()};
}

TEST_F(SysVRecords, OfAnotherLengthNameNothing) {
    const std::string whole = bytesOfRecord({});
    for (std::size_t length = 0; length < whole.size(); ++length) {
        plantFile(whole.substr(0, length));
        expectReplaced();
    }
    for (const std::size_t more : {1U, 32U, 100'000U}) {
        plantFile(whole + std::string(more, 'x'));
        expectReplaced();
    }
}

TEST_F(SysVRecords, OfOtherBytesNameNothing) {
    for (const char byte : {'\0', 'x', '\xff'}) {
        plantFile(std::string(SegmentRecord::size, byte));
        expectReplaced();
    }
}

TEST_F(SysVRecords, OfSegmentsThatThereAreNoneOfNameNothing) {
    for (const int id : {-1, -2, INT_MIN, INT_MAX, 32768 * 3 + 17}) {
        plantRecord({id, ::getpid(), {}});
        expectReplaced();
    }
}

TEST_F(SysVRecords, OfASegmentOfAnotherProgramNameNothing) {
    for (const mode_t mode : {0660U, 0600U, 0711U}) {
        const int id = plantSegment(std::string(200, 'x'), mode);
        const auto before = sysv::onlySegment();
        plantRecord({id, ::getpid(), {}});
        expectReplaced();
        EXPECT_EQ(sysv::onlySegment(), before);
        EXPECT_EQ(sysv::contentOf(id), std::string(200, 'x'));
        sysv::removeFromKernel(id);
    }
}

TEST_F(SysVRecords, OfASegmentThatIsTooSmallForAnyNameNothing) {
    for (const std::size_t size : {1U, 15U, 16U}) {
        const int id = plantSegment(std::string(size, '\0'));
        plantRecord({id, ::getpid(), {}});
        as(accounts::ben, [] { EXPECT_FALSE(findForFriends("name").isAttached()); });
        plantFile("");
        expectReplaced();
        sysv::removeFromKernel(id);
    }
}

TEST_F(SysVRecords, OfASegmentThatHasAKeyNameNothing) {
    constexpr key_t key = 0x7001;
    const int id = ::shmget(key, 200, IPC_CREAT | IPC_EXCL | 0600);
    sysv::giveTo(id, ::geteuid(), friends, 0660);
    plantRecord({id, ::getpid(), {}});
    ASSERT_EQ(::chown(path().c_str(), 0, friends), 0);
    const auto before = sysv::onlySegment();
    as(accounts::ben, [] {
        EXPECT_FALSE(findForFriends("name").isAttached());
        EXPECT_TRUE(createForFriends("name").isCreator());
    });
    useTheServiceForFriends();
    EXPECT_EQ(sysv::onlySegment(), before);
    sysv::removeFromKernel(id);
}

TEST_F(SysVRecords, WithOtherRandomBitsThanTheirSegmentNameNothing) {
    for (const std::size_t changed : {0U, 1U, 15U}) {
        as(accounts::anna, [] { createForFriends("name").makePersistent(); });
        SegmentRecord record = sysv::readRecord(path());
        for (unsigned char bit = 1; bit != 0; bit = static_cast<unsigned char>(bit << 1U)) {
            record.token.at(changed) ^= bit;
            plantRecord(record);
            as(accounts::ben, [] { EXPECT_FALSE(findForFriends("name").isAttached()); });
            record.token.at(changed) ^= bit;
        }
        plantRecord(record);
        as(accounts::anna, [] {
            SharedMemory found = findForFriends("name");
            EXPECT_TRUE(found.isAttached());
            found.markForDeletion();
        });
    }
}

TEST_F(SysVRecords, ARecordLeadsToNoSegmentThatAnotherUserMade) {
    // As after a reboot: anna's segment is gone, its number is given out again, and somebody who
    // could read the record knows what the segment ended with.
    const SegmentToken token = {7};
    as(accounts::carl,
       [] { sysv::plant(0600, std::string(200, 'x') + '\7' + std::string(15, 0)); });
    const auto forged = sysv::onlySegment();
    sysv::giveTo(forged.id, forged.owner, friends, 0660);
    plantRecord({forged.id, ::getpid(), token});
    expectReplaced();
    EXPECT_EQ(sysv::onlySegment().id, forged.id);
    EXPECT_EQ(sysv::contentOf(forged.id).substr(0, 200), std::string(200, 'x'));
    sysv::removeFromKernel(forged.id);
}

TEST_F(SysVRecords, AStrangerWhoHasReadARecordCannotForgeItsSegment) {
    ASSERT_EQ(tests::runInChild([] {
                  const auto startNumbering = [] { ASSERT_EQ(::unshare(CLONE_NEWIPC), 0); };
                  startNumbering();
                  as(accounts::anna, [] { createForFriends("name").makePersistent(); });
                  // An administrator lets everybody read.
                  for (const auto& path : {sysv::recordFolder(accounts::friends), path()}) {
                      fs::permissions(path, fs::perms::others_read | fs::perms::others_exec,
                                      fs::perm_options::add);
                  }
                  startNumbering();
                  as(accounts::carl, [] {
                      const SegmentRecord record = sysv::readRecord(path());
                      std::string forged(tests::someSize, 'x');
                      forged.append(record.token.begin(), record.token.end());
                      const int id = sysv::plant(0600, forged);
                      EXPECT_EQ(id, record.id);
                      sysv::giveTo(id, ::geteuid(), accounts::groupId(accounts::friends), 0660);
                  });
                  for (const std::string& member : {accounts::anna, accounts::ben}) {
                      as(member, [] { EXPECT_FALSE(findForFriends("name").isAttached()); });
                  }
                  as(accounts::ben, [] {
                      const SharedMemory made = createOrFindForFriends("name");
                      EXPECT_TRUE(made.isCreator());
                      EXPECT_TRUE(tests::isZero(bytesOf(made)));
                  });
                  as(accounts::anna, useTheServiceForFriends);
              }),
              0);
    EXPECT_EQ(sysv::allRecords(), std::vector<std::string>());
}

TEST_F(SysVRecords, ThatOthersMayWriteToNameNothing) {
    for (const mode_t mode : {0460U, 0660U, 0442U, 0666U}) {
        as(accounts::anna, [] { createForFriends("name").makePersistent(); });
        const int id = sysv::onlySegment().id;
        ASSERT_EQ(::chmod(path().c_str(), mode), 0);
        expectReplaced();
        sysv::removeFromKernel(id); // What names it could be forged.
    }
}

TEST_F(SysVRecords, ThatAllMayReadNameTheirSegment) {
    // As after an administrator's chmod -R a+rX.
    as(accounts::anna, [] { createForFriends("name").makePersistent(); });
    ASSERT_EQ(::chmod(path().c_str(), 0444), 0);
    as(accounts::ben, [] {
        SharedMemory found = findForFriends("name");
        EXPECT_TRUE(found.isAttached());
        EXPECT_FALSE(createForFriends("name").isAttached());
        found.markForDeletion();
    });
    as(accounts::anna, useTheServiceForFriends);
}

TEST_F(SysVRecords, OfASegmentWhosePermissionsWereChangedNameNothingAndItGoes) {
    const gid_t other = accounts::groupId(accounts::family);
    const std::vector<std::function<void(int)>> changes{
        [&](int id) { sysv::giveTo(id, annasId, friends, 0600); },
        [&](int id) { sysv::giveTo(id, annasId, friends, 0666); },
        [&](int id) { sysv::giveTo(id, annasId, friends, 0640); },
        [&](int id) { sysv::giveTo(id, annasId, other, 0660); },
        [&](int id) { sysv::giveTo(id, accounts::userId(accounts::carl), friends, 0660); },
    };
    for (const auto& change : changes) {
        as(accounts::anna, [] { createForFriends("name").makePersistent(); });
        change(sysv::onlySegment().id);
        expectReplaced();
        EXPECT_EQ(sysv::segments().size(), 0U);
    }
}

TEST_F(SysVRecords, OfASegmentThatIsRemovedWhileOthersAreAttachedNameNothing) {
    sysv::Owner anna(accounts::anna, "other", accounts::friends);
    anna.end();
    tests::ForkedProcess attached([](tests::Channel& channel) {
        accounts::become(accounts::anna);
        SharedMemory made = createForFriends("name");
        made.makePersistent();
        channel.send("made");
        channel.receive();
        EXPECT_FALSE(made.isStillNamed());
    });
    attached.channel().receive();
    sysv::removeFromKernel(sysv::onlySegment().id);
    EXPECT_EQ(sysv::segments().size(), 1U) << "it is still attached to";
    expectReplaced();
    attached.channel().send("end");
    EXPECT_EQ(attached.waitForExit(), 0);
}

TEST_F(SysVRecords, AreNotReachedThroughLinks) {
    as(accounts::anna, [] { createForFriends("real").makePersistent(); });
    const std::string real = sysv::recordOf("real", accounts::friends);
    for (const std::string& target :
         {real, fs::path(real).filename().string(), std::string("nothing")}) {
        fs::create_symlink(target, path());
        giveToAnna();
        as(accounts::ben, [] {
            EXPECT_FALSE(findForFriends("name").isAttached());
            EXPECT_THROW(createForFriends("name"), std::runtime_error);
            EXPECT_THROW(createOrFindForFriends("name"), std::runtime_error);
        });
        EXPECT_TRUE(fs::is_symlink(path()));
        fs::remove(path());
    }
    as(accounts::anna, [] { findForFriends("real").markForDeletion(); });
}

TEST_F(SysVRecords, InWhosePlaceADirectoryIsNameNothing) {
    fs::create_directory(path());
    fs::permissions(path(), fs::perms::all);
    expectInTheWay();
    fs::remove(path());
}

TEST_F(SysVRecords, InWhosePlaceAPipeIsAreNotWaitedFor) {
    ASSERT_EQ(::mkfifo(path().c_str(), 0600), 0);
    ASSERT_EQ(::chmod(path().c_str(), 0666), 0);
    giveToAnna();
    expectInTheWay();
    fs::remove(path());
}

TEST_F(SysVRecords, InWhosePlaceASocketIsNameNothing) {
    sockaddr_un address{AF_UNIX, {}};
    const foundation::os::FileDescriptor socket(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
    const std::string brief = "/dev/shm/socket";
    brief.copy(static_cast<char*>(address.sun_path), sizeof address.sun_path - 1);
    // NOLINTNEXTLINE(*-reinterpret-cast): as the call is declared
    ASSERT_EQ(::bind(socket.get(), reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
    std::error_code otherFileSystem;
    fs::rename(brief, path(), otherFileSystem);
    if (otherFileSystem) {
        fs::remove(brief);
        ASSERT_EQ(::mknod(path().c_str(), S_IFSOCK | 0666, 0), 0);
    }
    giveToAnna();
    expectInTheWay();
    fs::remove(path());
}

TEST_F(SysVRecords, ThatAMemberHasClosedNameNothing) {
    plantFile(std::string(32, 'x'), 0);
    as(accounts::ben, [] {
        EXPECT_FALSE(findForFriends("name").isAttached());
        EXPECT_THROW(createForFriends("name"), std::runtime_error);
        EXPECT_THROW(createOrFindForFriends("name"), std::runtime_error);
    });
    fs::remove(path());
}

/// The same under hidden names: what owners are told to remove.
class SysVNotes : public SysVRecords {
protected:
    static std::string notePath() {
        return sysv::recordFolder(accounts::friends) + ".unnamed-00112233445566778899aabbccddeeff";
    }

    /// Writes a note of this user's.
    void plantNote(const SegmentRecord& record, const std::string& user) const {
        sysv::writeRecord(notePath(), record);
        sysv::demand(::chown(notePath().c_str(), accounts::userId(user), friends) == 0, "chown");
    }

    static void expectNothingRemoved() {
        const auto before = sysv::segments();
        for (const std::string member : {"root", "ben", "anna"}) {
            as(member, useTheServiceForFriends);
            EXPECT_EQ(sysv::segments(), before);
        }
    }
};

TEST_F(SysVNotes, OfASegmentOfAnotherProgramRemoveNothing) {
    const int id = plantSegment(std::string(200, 'x'));
    plantNote({id, ::getpid(), {}}, accounts::anna);
    expectNothingRemoved();
    EXPECT_EQ(sysv::hiddenRecords().size(), 0U) << "they are of no use any more";
    sysv::removeFromKernel(id);
}

TEST_F(SysVNotes, OfAnotherUsersSegmentRemoveNothing) {
    // Zeros are what many segments end with.
    for (const mode_t mode : {0660U, 0600U, 0711U}) {
        const int id = plantSegment(std::string(200, '\0'), mode);
        plantNote({id, ::getpid(), {}}, accounts::ben);
        expectNothingRemoved();
        sysv::removeFromKernel(id);
    }
}

TEST_F(SysVNotes, OfAnotherUsersProcessRemoveNothing) {
    pid_t maker = 0;
    tests::ForkedProcess other([&](tests::Channel& channel) {
        sysv::plant(0711, std::string(200, '\0')); // As one that is being made.
        channel.send("made");
        channel.receive();
    });
    other.channel().receive();
    maker = other.pid();
    plantNote({SegmentRecord::noSegment, maker, {}}, accounts::ben);
    expectNothingRemoved();
    other.channel().send("end");
    EXPECT_EQ(other.waitForExit(), 0);
    sysv::removeFromKernel(sysv::onlySegment().id);
}

TEST_F(SysVNotes, ThatAreNoFilesAreLeftAlone) {
    fs::create_directory(notePath());
    ASSERT_EQ(::mkfifo((notePath() + "2").c_str(), 0666), 0);
    fs::create_symlink("/etc/passwd", notePath() + "3");
    for (const std::string end : {"", "2", "3"}) {
        ASSERT_EQ(::lchown((notePath() + end).c_str(), annasId, friends), 0);
    }
    as(accounts::anna, useTheServiceForFriends);
    useTheServiceForFriends();
    EXPECT_EQ(sysv::hiddenRecords().size(), 3U);
    for (const std::string& path : sysv::hiddenRecords()) {
        fs::remove(path);
    }
}

} // namespace
