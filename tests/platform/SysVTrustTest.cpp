#include "tests/platform/SysVTools.h"

#include <gtest/gtest.h>
#include <stdexcept>
#include <string>
#include <sys/stat.h>
#include <utility>

namespace {

namespace accounts = tests::accounts;
namespace sysv = tests::sysv;
using sysv::as;
using sysv::create;
using sysv::createForFriends;
using sysv::createOrFindForFriends;
using sysv::find;
using sysv::findForFriends;
using sysv::keysOf;
using tests::bytesOf;
using tests::Channel;
using tests::ForkedProcess;
using tests::SharedMemory;
using tests::someSize;

/// A process of this user that keeps what it makes until it is told to end.
class Owner {
public:
    Owner(const std::string& user, const std::string& name, const std::string& trustee,
          std::uint8_t content = 7)
        : process([&](Channel& channel) {
            accounts::become(user);
            const SharedMemory memory = create(name, someSize, trustee);
            EXPECT_TRUE(memory.isCreator());
            EXPECT_EQ(memory.getTrustee(), trustee);
            bytesOf(memory)[0] = content;
            channel.send("made");
            channel.receive();
            EXPECT_TRUE(memory.isStillNamed());
        }) {
        process.channel().receive();
    }

    void end() {
        process.channel().send("end");
        EXPECT_EQ(process.waitForExit(), 0);
    }

private:
    ForkedProcess process;
};

/// All bytes of a segment that anna makes for her friends under the name "name".
std::string contentOfAnnas(const std::string& trustee = accounts::friends) {
    Owner anna(accounts::anna, "name", trustee);
    const std::string content = sysv::contentOf(sysv::onlySegment().id);
    anna.end();
    return content;
}

/// Makes segments as carl, and lets a test take them away again.
template<typename Keys>
void plantAsCarl(const Keys& keys, std::size_t count, const std::string& content,
                 const std::function<void(int id)>& disguise) {
    as(accounts::carl, [&] {
        for (std::size_t i = 0; i < count; ++i) {
            disguise(sysv::plant(keys.at(i), 0660, content));
        }
    });
}

void uprootAllOf(const std::string& creator) {
    for (const auto& segment : sysv::segments()) {
        if (segment.creator == accounts::userId(creator)) {
            sysv::removeFromKernel(segment.id);
        }
    }
}

class SysVUsers : public sysv::SysVUsersTest {};

TEST_F(SysVUsers, NeverMeetInPrivateSegmentsOfOneName) {
    Owner anna(accounts::anna, "name", "");
    as(accounts::ben, [] {
        EXPECT_FALSE(find("name").isAttached());
        const SharedMemory own = create("name");
        EXPECT_TRUE(own.isCreator());
        EXPECT_TRUE(tests::isZero(bytesOf(own)));
    });
    EXPECT_FALSE(find("name").isAttached()) << "root";
    as(accounts::anna, [] { EXPECT_EQ(bytesOf(find("name"))[0], 7); });
    anna.end();
}

TEST_F(SysVUsers, AreTheEffectiveOnes) {
    EXPECT_EQ(tests::runInChild([] {
                  const SharedMemory roots = create("name");
                  EXPECT_EQ(::seteuid(accounts::userId(accounts::anna)), 0);
                  EXPECT_FALSE(find("name").isAttached());
                  EXPECT_TRUE(create("name").isCreator());
                  EXPECT_EQ(::seteuid(0), 0);
                  EXPECT_TRUE(find("name").isAttached());
              }),
              0);
}

TEST_F(SysVUsers, GiveASharedSegmentToTheTrusteeUnderAnyUmask) {
    for (const mode_t mask : {0000U, 0022U, 0077U, 0777U}) {
        as(accounts::anna, [mask] {
            ::umask(mask);
            const SharedMemory memory = createForFriends("name");
            const auto segment = sysv::onlySegment();
            EXPECT_EQ(segment.mode, 0660U);
            EXPECT_EQ(segment.group, accounts::groupId(accounts::friends));
            EXPECT_EQ(segment.owner, accounts::userId(accounts::anna));
            EXPECT_EQ(segment.creator, accounts::userId(accounts::anna));
        });
    }
}

TEST_F(SysVUsers, ShareASegmentWithTheTrusteesMembers) {
    Owner anna(accounts::anna, "name", accounts::friends);
    as(accounts::ben, [] {
        const SharedMemory found = findForFriends("name");
        ASSERT_TRUE(found.isAttached());
        EXPECT_FALSE(found.isCreator());
        EXPECT_TRUE(found.isStillNamed());
        EXPECT_EQ(found.getTrustee(), accounts::friends);
        EXPECT_EQ(found.getSize(), someSize);
        EXPECT_EQ(bytesOf(found)[0], 7);
        bytesOf(found)[0] = 8;
        EXPECT_FALSE(createForFriends("name").isAttached());
        EXPECT_TRUE(createOrFindForFriends("name").isAttached());
    });
    as(accounts::anna, [] { EXPECT_EQ(bytesOf(findForFriends("name"))[0], 8); });
    anna.end();
}

TEST_F(SysVUsers, KeepASharedSegmentFromStrangers) {
    Owner anna(accounts::anna, "name", accounts::friends);
    const int id = sysv::onlySegment().id;
    as(accounts::carl, [id] {
        EXPECT_FALSE(findForFriends("name").isAttached());
        EXPECT_FALSE(find("name").isAttached());
        EXPECT_THROW(createForFriends("name"), std::runtime_error);
        EXPECT_THROW(createOrFindForFriends("name"), std::runtime_error);
        for (const int access : {0, SHM_RDONLY}) {
            EXPECT_EQ(::shmat(id, nullptr, access), reinterpret_cast<void*>(-1));
            EXPECT_EQ(errno, EACCES);
        }
        EXPECT_THROW(sysv::removeFromKernel(id), std::system_error);
    });
    EXPECT_EQ(sysv::onlySegment().id, id);
    anna.end();
}

TEST_F(SysVUsers, CannotMakeASegmentForAGroupThatTheyAreNotIn) {
    as(accounts::carl, [] {
        EXPECT_FALSE(findForFriends("name").isAttached());
        EXPECT_THROW(createForFriends("name"), std::runtime_error);
        EXPECT_THROW(createOrFindForFriends("name"), std::runtime_error);
    });
    EXPECT_EQ(sysv::segments().size(), 0U);
}

TEST_F(SysVUsers, TrustRootAsTheyTrustMembers) {
    const SharedMemory roots = createForFriends("name");
    ASSERT_TRUE(roots.isCreator());
    as(accounts::ben, [] {
        EXPECT_TRUE(findForFriends("name").isAttached());
        EXPECT_FALSE(createForFriends("name").isAttached());
    });
    as(accounts::carl, [] { EXPECT_FALSE(findForFriends("name").isAttached()); });
}

TEST_F(SysVUsers, HaveSeparateSegmentsForEveryTrustee) {
    as(accounts::anna, [] {
        const SharedMemory own = create("name");
        const SharedMemory shared = createForFriends("name");
        const SharedMemory other = create("name", someSize, accounts::anna);
        EXPECT_TRUE(own.isCreator() && shared.isCreator() && other.isCreator());
        bytesOf(own)[0] = 1;
        bytesOf(shared)[0] = 2;
        bytesOf(other)[0] = 3;
        EXPECT_EQ(bytesOf(find("name"))[0], 1);
        EXPECT_EQ(bytesOf(findForFriends("name"))[0], 2);
        EXPECT_EQ(bytesOf(find("name", someSize, accounts::anna))[0], 3);
        EXPECT_EQ(sysv::segments().size(), 3U);
    });
}

class SysVEmptyTrustee : public sysv::SysVUsersTest {};

TEST_F(SysVEmptyTrustee, FindsThePrivateSegmentFirstAndThenThoseOfTheGroupsInOrderOfTheirNames) {
    as(accounts::anna, [] {
        SharedMemory shared = createForFriends("name");
        SharedMemory other = create("name", someSize, accounts::anna);
        SharedMemory own = create("name");
        EXPECT_EQ(find("name").getTrustee(), "");
        own = SharedMemory();
        EXPECT_EQ(find("name").getTrustee(), "anna");
        other = SharedMemory();
        const SharedMemory found = find("name");
        EXPECT_TRUE(found.isAttached());
        EXPECT_EQ(found.getTrustee(), "friends");
        EXPECT_TRUE(found.isStillNamed());
        shared = SharedMemory();
        EXPECT_FALSE(find("name").isAttached());
    });
}

TEST_F(SysVEmptyTrustee, FindsWhatAnotherMemberMadeForTheGroup) {
    Owner anna(accounts::anna, "name", accounts::friends);
    as(accounts::ben, [] {
        const SharedMemory found = find("name");
        EXPECT_EQ(found.getTrustee(), accounts::friends);
        EXPECT_EQ(bytesOf(found)[0], 7);
    });
    as(accounts::carl, [] { EXPECT_FALSE(find("name").isAttached()); });
    anna.end();
}

TEST_F(SysVEmptyTrustee, CreatesAPrivateSegmentWhateverTheGroupsHave) {
    Owner anna(accounts::anna, "name", accounts::friends);
    as(accounts::ben, [] {
        const SharedMemory own = create("name");
        EXPECT_TRUE(own.isCreator());
        EXPECT_EQ(own.getTrustee(), "");
        EXPECT_EQ(find("name").getTrustee(), "");
    });
    as(accounts::ben, [] { EXPECT_TRUE(sysv::createOrFind("name").isCreator()); });
    anna.end();
}

TEST_F(SysVEmptyTrustee, DoesNotTakeAGroupsSegmentForAPrivateOneThatIsTooSmall) {
    Owner anna(accounts::anna, "name", accounts::friends);
    as(accounts::ben, [] {
        const SharedMemory own = create("name", 1);
        EXPECT_EQ(find("name", 1).getTrustee(), "");
        EXPECT_FALSE(find("name", 2).isAttached());
    });
    anna.end();
}

TEST_F(SysVEmptyTrustee, FindsNoGroupsSegmentInPosixSharedMemory) {
    as(accounts::anna, [] {
        const SharedMemory shared = tests::create("name", someSize, accounts::friends);
        EXPECT_FALSE(tests::find("name").isAttached());
    });
}

class SysVStrangers : public sysv::SysVUsersTest {
protected:
    void SetUp() override {
        SysVUsersTest::SetUp();
        if (!IsSkipped()) {
            friends = accounts::groupId(accounts::friends);
            annasId = accounts::userId(accounts::anna);
            carlsId = accounts::userId(accounts::carl);
        }
    }

    /// Expects that nobody takes what carl planted for a segment, or is kept from making one.
    static void expectIgnored() {
        const auto planted = sysv::segments();
        as(accounts::ben, [] { EXPECT_FALSE(findForFriends("name").isAttached()); });
        Owner anna(accounts::anna, "name", accounts::friends, 9);
        as(accounts::ben, [] {
            EXPECT_EQ(bytesOf(findForFriends("name"))[0], 9);
            EXPECT_FALSE(createOrFindForFriends("name").isCreator());
            EXPECT_EQ(find("name").getTrustee(), accounts::friends);
        });
        anna.end();
        as(accounts::ben, [] { EXPECT_TRUE(createOrFindForFriends("name").isCreator()); });
        EXPECT_EQ(sysv::segments(), planted);
    }

    gid_t friends = 0;
    uid_t annasId = 0;
    uid_t carlsId = 0;
};

TEST_F(SysVStrangers, WhoCopyASegmentOfTheGroupAreIgnored) {
    const std::string content = contentOfAnnas();
    const auto keys = keysOf("name", accounts::friends);
    plantAsCarl(keys, keys.size() - 1, content,
                [this](int id) { sysv::giveTo(id, carlsId, friends, 0660); });
    expectIgnored();
    uprootAllOf(accounts::carl);
}

TEST_F(SysVStrangers, WhoGiveTheCopyToAMemberAreIgnored) {
    const std::string content = contentOfAnnas();
    const auto keys = keysOf("name", accounts::friends);
    plantAsCarl(keys, keys.size() - 1, content,
                [this](int id) { sysv::giveTo(id, annasId, friends, 0660); });
    EXPECT_EQ(sysv::segments().at(0).owner, annasId);
    expectIgnored();
    uprootAllOf(accounts::carl);
}

TEST_F(SysVStrangers, WhoPlantWhatLooksUnfinishedAreNotWaitedFor) {
    const auto keys = keysOf("name", accounts::friends);
    for (const mode_t mode : {0600U, 0700U, 0711U}) {
        ForkedProcess carl([&](Channel& channel) {
            accounts::become(accounts::carl);
            for (std::size_t i = 0; i + 1 < keys.size(); ++i) {
                const int id = sysv::plant(keys.at(i), mode, std::string(200, '\0'));
                sysv::demand(::shmat(id, nullptr, 0) != reinterpret_cast<void*>(-1), "shmat");
            }
            channel.send("planted");
            channel.receive();
        });
        ASSERT_EQ(carl.channel().receive(), "planted");
        expectIgnored();
        carl.kill();
        uprootAllOf(accounts::carl);
    }
}

TEST_F(SysVStrangers, WhoPlantUnderTheKeysOfAPrivateSegmentAreIgnored) {
    const std::string content = contentOfAnnas("");
    const auto keys = keysOf("name", "", annasId);
    plantAsCarl(keys, keys.size() - 1, content,
                [this](int id) { sysv::giveTo(id, annasId, friends, 0600); });
    const auto planted = sysv::segments();
    as(accounts::anna, [] {
        EXPECT_FALSE(find("name").isAttached());
        const SharedMemory own = create("name");
        EXPECT_TRUE(own.isCreator());
        EXPECT_TRUE(tests::isZero(bytesOf(own)));
        bytesOf(own)[0] = 9;
        EXPECT_EQ(bytesOf(find("name"))[0], 9);
    });
    EXPECT_EQ(sysv::segments(), planted);
    uprootAllOf(accounts::carl);
}

TEST_F(SysVStrangers, GetNothingFromASegmentThatGrantsThemSomething) {
    const std::string content = contentOfAnnas();
    const auto keys = keysOf("name", accounts::friends);
    const gid_t other = accounts::groupId(accounts::anna);
    as(accounts::anna, [&] {
        std::size_t next = 0;
        for (const mode_t mode : {0666U, 0664U, 0662U}) {
            const int id = sysv::plant(keys.at(next++), 0600, content);
            sysv::giveTo(id, annasId, friends, mode);
        }
        sysv::giveTo(sysv::plant(keys.at(next), 0600, content), annasId, other, 0660);
    });
    expectIgnored();
    uprootAllOf(accounts::anna);
}

TEST_F(SysVStrangers, WhoWereGivenASegmentByItsMakerAreNotTrustedWithIt) {
    const std::string content = contentOfAnnas();
    as(accounts::anna, [&] {
        const int id = sysv::plant(keysOf("name", accounts::friends)[0], 0600, content);
        sysv::giveTo(id, carlsId, friends, 0660);
    });
    expectIgnored();
    uprootAllOf(accounts::anna);
}

} // namespace
