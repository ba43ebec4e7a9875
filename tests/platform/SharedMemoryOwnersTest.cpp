#include "tests/platform/SharedMemoryTools.h"
#include "tests/support/ForkedProcess.h"
#include "tests/support/TestAccounts.h"

#include <functional>
#include <gtest/gtest.h>
#include <stdexcept>
#include <string>
#include <unistd.h>

namespace {

namespace accounts = tests::accounts;
using tests::bytesOf;
using tests::Channel;
using tests::create;
using tests::createOrFind;
using tests::find;
using tests::ForkedProcess;
using tests::SharedMemory;
using tests::someSize;

constexpr mode_t permissionBits = S_IRWXU | S_IRWXG | S_IRWXO | S_ISUID | S_ISGID | S_ISVTX;

/// A process of this user that makes a segment and keeps it until it is told to end.
class Owner {
public:
    Owner(const std::string& user, const std::string& name, const std::string& trustee)
        : process([&](Channel& channel) {
            accounts::become(user);
            const SharedMemory memory = create(name, someSize, trustee);
            EXPECT_TRUE(memory.isCreator());
            bytesOf(memory)[0] = 7;
            channel.send("made");
            channel.receive();
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

/// Runs `body` as this user and expects it to succeed.
void as(const std::string& user, const std::function<void()>& body) {
    EXPECT_EQ(tests::runInChild([&] {
                  accounts::become(user);
                  body();
              }),
              0)
        << user;
}

class SharedMemoryOwners : public tests::SharedMemoryTest {};

TEST_F(SharedMemoryOwners, KeepPrivateSegmentsToThemselvesUnderAnyUmask) {
    for (const mode_t mask : {0000U, 0022U, 0077U, 0777U}) {
        EXPECT_EQ(tests::runInChild([mask] {
                      ::umask(mask);
                      const SharedMemory memory = create("name");
                      const auto status = tests::statusOf(tests::segmentFiles().at(0));
                      EXPECT_EQ(status.st_mode & permissionBits,
                                static_cast<mode_t>(S_IRUSR | S_IWUSR));
                      EXPECT_EQ(status.st_uid, ::geteuid());
                      EXPECT_EQ(::umask(0), mask);
                  }),
                  0)
            << std::oct << mask;
    }
}

/// The tests that act as several users.
class SharedMemoryUsers : public SharedMemoryOwners {
protected:
    void SetUp() override {
        if (!accounts::available()) {
            GTEST_SKIP() << accounts::whyNot;
        }
    }
};

TEST_F(SharedMemoryUsers, NeverMeetInPrivateSegmentsOfOneName) {
    for (const std::string name : {"name", "na/me"}) {
        Owner anna(accounts::anna, name, "");
        as(accounts::ben, [&name] {
            EXPECT_FALSE(find(name).isAttached());
            const SharedMemory own = create(name);
            EXPECT_TRUE(own.isCreator());
            EXPECT_TRUE(tests::isZero(bytesOf(own)));
        });
        EXPECT_FALSE(find(name).isAttached()) << "root";
        as(accounts::anna, [&name] { EXPECT_EQ(bytesOf(find(name))[0], 7); });
        anna.end();
    }
}

TEST_F(SharedMemoryUsers, AreTheEffectiveOnes) {
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

TEST_F(SharedMemoryUsers, ShareASegmentWithTheTrusteesMembersOnly) {
    for (const std::string name : {"name", "na/me"}) {
        Owner anna(accounts::anna, name, accounts::friends);
        as(accounts::ben, [&name] {
            const SharedMemory found = find(name, someSize, accounts::friends);
            ASSERT_TRUE(found.isAttached());
            EXPECT_FALSE(found.isCreator());
            EXPECT_EQ(found.getTrustee(), accounts::friends);
            EXPECT_EQ(bytesOf(found)[0], 7);
            bytesOf(found)[0] = 8;
            EXPECT_FALSE(create(name, someSize, accounts::friends).isAttached());
            EXPECT_TRUE(createOrFind(name, someSize, accounts::friends).isAttached());
        });
        as(accounts::carl, [&name] {
            EXPECT_FALSE(find(name, someSize, accounts::friends).isAttached());
            EXPECT_THROW(createOrFind(name, someSize, accounts::friends), std::runtime_error);
        });
        as(accounts::anna,
           [&name] { EXPECT_EQ(bytesOf(find(name, someSize, accounts::friends))[0], 8); });
        anna.end();
    }
}

TEST_F(SharedMemoryUsers, HaveSeparateSegmentsForEveryTrustee) {
    as(accounts::anna, [] {
        const SharedMemory own = create("name");
        const SharedMemory shared = create("name", someSize, accounts::friends);
        const SharedMemory other = create("name", someSize, accounts::anna);
        EXPECT_TRUE(own.isCreator() && shared.isCreator() && other.isCreator());
        EXPECT_EQ(own.getTrustee(), "");
        EXPECT_EQ(shared.getTrustee(), accounts::friends);
        EXPECT_EQ(other.getTrustee(), accounts::anna);
        bytesOf(own)[0] = 1;
        bytesOf(shared)[0] = 2;
        bytesOf(other)[0] = 3;
        EXPECT_EQ(bytesOf(find("name"))[0], 1);
        EXPECT_EQ(bytesOf(find("name", someSize, accounts::friends))[0], 2);
        EXPECT_EQ(bytesOf(find("name", someSize, accounts::anna))[0], 3);
    });
}

TEST_F(SharedMemoryUsers, GiveASharedSegmentToTheTrusteeUnderAnyUmask) {
    for (const mode_t mask : {0000U, 0022U, 0077U, 0777U}) {
        as(accounts::anna, [mask] {
            ::umask(mask);
            const SharedMemory memory = create("name", someSize, accounts::friends);
            const auto status = tests::statusOf(tests::segmentFiles().at(0));
            EXPECT_EQ(status.st_mode & permissionBits,
                      static_cast<mode_t>(S_IRUSR | S_IWUSR | S_IRGRP | S_IWGRP));
            EXPECT_EQ(status.st_gid, accounts::groupId(accounts::friends));
            EXPECT_EQ(status.st_uid, accounts::userId(accounts::anna));
            EXPECT_EQ(::umask(0), mask);
        });
    }
}

TEST_F(SharedMemoryUsers, CannotMakeASegmentForAGroupThatTheyAreNotIn) {
    as(accounts::carl, [] {
        EXPECT_THROW(create("name", someSize, accounts::friends), std::runtime_error);
        EXPECT_THROW(createOrFind("name", someSize, accounts::friends), std::runtime_error);
        EXPECT_FALSE(find("name", someSize, accounts::friends).isAttached());
        EXPECT_TRUE(tests::segmentFiles().empty());
    });
}

TEST_F(SharedMemoryUsers, HaveTheNamesOfTheUserDatabase) {
    using agent::spf::sharedmemory::getCurrentUserName;
    EXPECT_EQ(getCurrentUserName(), "root");
    as(accounts::anna, [] { EXPECT_EQ(getCurrentUserName(), "anna"); });
    EXPECT_EQ(tests::runInChild([] {
                  EXPECT_EQ(::seteuid(accounts::userId(accounts::ben)), 0);
                  EXPECT_EQ(getCurrentUserName(), "ben");
              }),
              0);
    EXPECT_EQ(tests::runInChild([] {
                  EXPECT_EQ(::setuid(60899), 0);
                  EXPECT_EQ(getCurrentUserName(), "60899");
              }),
              0);
}

} // namespace
