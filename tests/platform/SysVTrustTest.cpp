#include "tests/platform/SysVTools.h"

#include <functional>
#include <gtest/gtest.h>
#include <string>

namespace {

namespace accounts = tests::accounts;
namespace sysv = tests::sysv;
using sysv::as;
using sysv::create;
using sysv::createOrFindForFriends;
using sysv::find;
using sysv::findForFriends;
using sysv::keysOf;
using sysv::Owner;
using tests::bytesOf;
using tests::Channel;
using tests::ForkedProcess;
using tests::SharedMemory;

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
