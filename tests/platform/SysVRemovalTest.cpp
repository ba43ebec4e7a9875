#include "tests/platform/SysVTools.h"

#include <algorithm>
#include <gtest/gtest.h>
#include <string>
#include <utility>

namespace {

namespace accounts = tests::accounts;
namespace sysv = tests::sysv;
using sysv::as;
using sysv::createForFriends;
using sysv::createOrFindForFriends;
using sysv::findForFriends;
using sysv::useTheServiceForFriends;
using tests::bytesOf;
using tests::Channel;
using tests::ForkedProcess;
using tests::SharedMemory;

/// A process of this user that answers to the test: it does what it is told, one thing at a time.
class Member {
public:
    explicit Member(const std::string& user)
        : process([user](Channel& channel) {
            accounts::become(user);
            SharedMemory kept;
            for (std::string order = channel.receive(); order != "end"; order = channel.receive()) {
                channel.send(obey(order, kept) ? "yes" : "no");
            }
        }) {}

    /// What it answers to an order.
    bool operator()(const std::string& order) {
        process.channel().send(order);
        return process.channel().receive() == "yes";
    }

    void end() {
        process.channel().send("end");
        EXPECT_EQ(process.waitForExit(), 0);
    }

private:
    static bool obey(const std::string& order, SharedMemory& kept) {
        if (order == "create") {
            kept = createForFriends("name");
            return kept.isCreator() && tests::isZero(bytesOf(kept));
        }
        if (order == "write") {
            std::ranges::fill(bytesOf(kept), std::uint8_t{7});
            return true;
        }
        if (order == "persist") {
            kept.makePersistent();
            return true;
        }
        if (order == "mark") {
            kept.markForDeletion();
            return true;
        }
        if (order == "leave") {
            kept = SharedMemory();
            return true;
        }
        if (order == "find") {
            kept = findForFriends("name");
            return kept.isAttached();
        }
        if (order == "finds it") {
            return findForFriends("name").isAttached() || sysv::find("name").isAttached();
        }
        if (order == "remove") {
            SharedMemory found = findForFriends("name");
            found.markForDeletion();
            return found.isAttached();
        }
        if (order == "use") {
            useTheServiceForFriends();
            return true;
        }
        if (order == "fill") {
            const SharedMemory filled = SharedMemory::createFilled(
                "filled", "contents", accounts::friends, sysv::implementation);
            return filled.isCreator();
        }
        if (order == "reads it") {
            return SharedMemory::read("name", 1, accounts::friends, sysv::implementation) ||
                   SharedMemory::read("name", 1, "", sysv::implementation);
        }
        if (order == "is still named") {
            return kept.isStillNamed();
        }
        if (order == "reads 7") {
            return std::ranges::all_of(bytesOf(kept), [](auto byte) { return byte == 7; });
        }
        throw std::invalid_argument(order);
    }

    ForkedProcess process;
};

class SysVRemoval : public sysv::SysVUsersTest {};

TEST_F(SysVRemoval, ByAnotherMemberHidesASegmentFromEverybody) {
    Member anna(accounts::anna);
    Member ben(accounts::ben);
    ASSERT_TRUE(anna("create"));
    anna("write");
    EXPECT_TRUE(anna("is still named"));
    EXPECT_TRUE(ben("remove"));
    EXPECT_FALSE(ben("finds it"));
    EXPECT_FALSE(anna("finds it"));
    EXPECT_FALSE(findForFriends("name").isAttached()) << "root";
    EXPECT_FALSE(anna("is still named"));
    EXPECT_TRUE(anna("reads 7")) << "those attached keep their bytes";
    anna("use");
    anna.end();
    ben.end();
}

TEST_F(SysVRemoval, ByAnotherMemberFreesTheNameAtOnce) {
    Member anna(accounts::anna);
    Member ben(accounts::ben);
    for (const bool isBens : {true, false}) {
        ASSERT_TRUE(anna("create"));
        anna("persist");
        anna("write");
        ASSERT_TRUE(ben("remove"));
        Member& next = isBens ? ben : anna;
        if (!isBens) {
            anna("leave");
        }
        EXPECT_TRUE(next("create")) << "and all its bytes are zero";
        EXPECT_TRUE(next("is still named"));
        EXPECT_TRUE(anna("finds it"));
        EXPECT_TRUE(ben("finds it"));
        next("leave");
        EXPECT_FALSE(ben("finds it"));
        anna("leave");
        anna("use");
    }
    anna.end();
    ben.end();
}

TEST_F(SysVRemoval, ByAnotherMemberEndsInTheKernelWithTheNextUseOfTheOwner) {
    Member anna(accounts::anna);
    Member ben(accounts::ben);
    for (const std::string use : {"use", "create"}) {
        ASSERT_TRUE(anna("create"));
        anna("persist");
        anna("leave");
        ASSERT_TRUE(ben("remove"));
        const int removed = sysv::onlySegment().id;
        anna(use);
        const auto left = sysv::segments();
        EXPECT_TRUE(std::ranges::none_of(left, [removed](const auto& segment) {
            return segment.id == removed;
        })) << use;
        anna("leave");
        EXPECT_EQ(sysv::segments().size(), 0U) << use;
    }
    anna.end();
    ben.end();
}

TEST_F(SysVRemoval, ByAnotherMemberCostsTheOwnerNothingUntilItMakesASegment) {
    Member anna(accounts::anna);
    Member ben(accounts::ben);
    for (const std::string use : {"use", "fill"}) {
        ASSERT_TRUE(anna("create"));
        anna("persist");
        anna("leave");
        ASSERT_TRUE(ben("remove"));
        const int removed = sysv::onlySegment().id;
        EXPECT_FALSE(anna("finds it"));
        EXPECT_FALSE(anna("reads it"));
        EXPECT_FALSE(anna("find"));
        EXPECT_EQ(sysv::onlySegment().id, removed) << "a look is no occasion to clear up";
        ben(use);
        EXPECT_EQ(sysv::onlySegment().id, removed) << "only its owner may";
        anna(use);
        EXPECT_EQ(sysv::segments().size(), 0U) << use;
    }
    anna.end();
    ben.end();
}

TEST_F(SysVRemoval, ByAnotherMemberKeepsTheBytesOfThoseAttachedWhenTheOwnerCleansUp) {
    Member anna(accounts::anna);
    Member ben(accounts::ben);
    ASSERT_TRUE(anna("create"));
    anna("write");
    ASSERT_TRUE(ben("find"));
    ben("mark");
    Member otherBen(accounts::ben);
    ASSERT_TRUE(otherBen("find"));
    ben("leave");
    anna("use");
    for (Member* const member : {&anna, &otherBen}) {
        EXPECT_TRUE((*member)("reads 7"));
        EXPECT_FALSE((*member)("is still named"));
        (*member)("leave");
    }
    EXPECT_EQ(sysv::segments().size(), 0U);
    anna.end();
    otherBen.end();
    ben.end();
}

TEST_F(SysVRemoval, OfASegmentThatWasRemovedAlreadySparesTheNextOneOfItsName) {
    Member anna(accounts::anna);
    Member ben(accounts::ben);
    Member late(accounts::ben);
    ASSERT_TRUE(anna("create"));
    ASSERT_TRUE(late("find"));
    late("mark");
    ASSERT_TRUE(ben("remove"));
    ASSERT_TRUE(ben("create"));
    late("leave");
    EXPECT_TRUE(ben("is still named"));
    anna("leave");
    EXPECT_TRUE(ben("is still named"));
    EXPECT_TRUE(anna("finds it"));
    ben("leave");
    anna("use");
    anna.end();
    late.end();
    ben.end();
}

TEST_F(SysVRemoval, ByRootEndsAMembersSegment) {
    Member anna(accounts::anna);
    ASSERT_TRUE(anna("create"));
    anna("persist");
    {
        SharedMemory found = findForFriends("name");
        ASSERT_TRUE(found.isAttached());
        found.markForDeletion();
    }
    EXPECT_FALSE(anna("is still named"));
    EXPECT_FALSE(anna("finds it"));
    anna.end();
    EXPECT_EQ(sysv::segments().size(), 0U);
}

TEST_F(SysVRemoval, ByAMemberEndsRootsSegment) {
    {
        SharedMemory roots = createForFriends("name");
        roots.makePersistent();
    }
    as(accounts::ben, [] {
        findForFriends("name").markForDeletion();
        EXPECT_FALSE(findForFriends("name").isAttached());
        EXPECT_TRUE(createOrFindForFriends("name").isCreator());
    });
    useTheServiceForFriends();
    EXPECT_EQ(sysv::segments().size(), 0U);
}

TEST_F(SysVRemoval, ByEachMemberInTurnLeavesFewSegmentsAndNoneInTheEnd) {
    constexpr int cycleCount = 1000;
    constexpr std::size_t most = 2;
    Member anna(accounts::anna);
    Member ben(accounts::ben);
    std::size_t highest = 0;
    for (int cycle = 0; cycle < cycleCount; ++cycle) {
        Member& maker = cycle % 2 == 0 ? anna : ben;
        Member& remover = cycle % 2 == 0 ? ben : anna;
        ASSERT_TRUE(maker("create")) << cycle;
        maker("persist");
        maker("leave");
        ASSERT_TRUE(remover("remove")) << cycle;
        highest = std::max(highest, sysv::segments().size());
    }
    EXPECT_LE(highest, most);
    anna("use");
    ben("use");
    EXPECT_EQ(sysv::segments().size(), 0U);
    anna.end();
    ben.end();
}

TEST_F(SysVRemoval, ByOneMemberOfAllThatTheOtherMakesLeavesFewSegmentsAndNoneInTheEnd) {
    constexpr int cycleCount = 1000;
    constexpr std::size_t most = 2;
    Member anna(accounts::anna);
    Member ben(accounts::ben);
    for (int cycle = 0; cycle < cycleCount; ++cycle) {
        ASSERT_TRUE(anna("create")) << cycle;
        anna("persist");
        ASSERT_TRUE(ben("remove")) << cycle;
        ASSERT_LE(sysv::segments().size(), most) << cycle;
    }
    anna("leave");
    anna("use");
    EXPECT_EQ(sysv::segments().size(), 0U);
    anna.end();
    ben.end();
}

} // namespace
