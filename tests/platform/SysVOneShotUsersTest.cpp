#include "tests/platform/SysVTools.h"

#include <grp.h>
#include <gtest/gtest.h>
#include <string>
#include <unistd.h>

namespace {

namespace accounts = tests::accounts;
namespace sysv = tests::sysv;
using sysv::createForFriends;
using sysv::createOrFindForFriends;
using sysv::findForFriends;
using tests::bytesOf;
using tests::SharedMemory;

/// Users that come once and never again, as service managers make them: of each there is a number
/// and no entry in the user database.
class SysVOneShotUsers : public sysv::SysVUsersTest {
protected:
    static constexpr int count = 40;
    static constexpr uid_t first = 61200;

    static void as(uid_t user, const std::function<void()>& body) {
        const gid_t friends = accounts::groupId(accounts::friends);
        EXPECT_EQ(tests::runInChild([&] {
                      ASSERT_EQ(::setgroups(1, &friends), 0);
                      ASSERT_EQ(::setgid(user), 0);
                      ASSERT_EQ(::setuid(user), 0);
                      body();
                  }),
                  0)
            << user;
    }
};

TEST_F(SysVOneShotUsers, EachMakeAndRemoveWhatTheyLike) {
    for (uid_t user = first; user < first + count; ++user) {
        as(user, [] {
            for (int turn = 0; turn < 3; ++turn) {
                const SharedMemory memory = createForFriends("name");
                EXPECT_TRUE(memory.isCreator());
                EXPECT_TRUE(sysv::create("name").isCreator());
                EXPECT_TRUE(findForFriends("name").isAttached());
            }
        });
    }
    EXPECT_EQ(sysv::segments().size(), 0U);
    EXPECT_EQ(sysv::allRecords().size(), 0U) << "what they made they removed";
}

TEST_F(SysVOneShotUsers, LeaveNoMoreThanTheirNotesWhenOthersRemoveWhatTheyMade) {
    for (uid_t user = first; user < first + count; ++user) {
        as(user, [user] {
            SharedMemory earlier = findForFriends("name");
            EXPECT_EQ(earlier.isAttached(), user != first);
            if (earlier.isAttached()) {
                EXPECT_EQ(bytesOf(earlier)[0], 7);
            }
            earlier.markForDeletion();
            earlier = SharedMemory();
            SharedMemory made = createOrFindForFriends("name");
            EXPECT_TRUE(made.isCreator());
            EXPECT_TRUE(tests::isZero(bytesOf(made)));
            bytesOf(made)[0] = 7;
            made.makePersistent();
        });
        const auto turns = static_cast<std::size_t>(user - first);
        ASSERT_EQ(sysv::segments().size(), turns + 1);
        ASSERT_EQ(sysv::hiddenRecords().size(), turns) << "a note to each owner";
    }
    // Those that come again clear up after themselves, and root, who may, after all.
    as(first, sysv::useTheServiceForFriends);
    EXPECT_EQ(sysv::hiddenRecords().size(), count - 2U);
    findForFriends("name").markForDeletion();
    sysv::useTheServiceForFriends();
}

} // namespace
