#include "tests/platform/SysVTools.h"

#include <filesystem>
#include <gtest/gtest.h>
#include <sched.h>
#include <string>
#include <sys/stat.h>
#include <unistd.h>

namespace {

namespace accounts = tests::accounts;
namespace fs = std::filesystem;
namespace sysv = tests::sysv;
using sysv::as;
using sysv::create;
using sysv::createForFriends;
using sysv::createOrFindForFriends;
using sysv::find;
using sysv::findForFriends;
using sysv::useTheServiceForFriends;
using tests::bytesOf;
using tests::SharedMemory;

/// Records that have outlived their segments.
class SysVStaleRecords : public sysv::SysVUsersTest {
protected:
    /// Runs the body as this user where System V memory is another one, as in a container.
    static void elsewhereAs(const std::string& user, const std::function<void()>& body) {
        EXPECT_EQ(tests::runInChild([&] {
                      ASSERT_EQ(::unshare(CLONE_NEWIPC), 0);
                      accounts::become(user);
                      body();
                  }),
                  0);
    }

    /// Removes anna's segment behind the service's back, as a reboot does.
    static void leaveOnlyTheRecord() {
        as(accounts::anna, [] { createForFriends("name").makePersistent(); });
        sysv::removeFromKernel(sysv::onlySegment().id);
        EXPECT_EQ(sysv::allRecords().size(), 1U);
    }
};

TEST_F(SysVStaleRecords, NameNothing) {
    leaveOnlyTheRecord();
    for (const std::string& member : {accounts::anna, accounts::ben}) {
        as(member, [] { EXPECT_FALSE(findForFriends("name").isAttached()); });
    }
    EXPECT_EQ(sysv::allRecords().size(), 1U) << "a look changes nothing";
    as(accounts::ben, [] { EXPECT_TRUE(createForFriends("name").isCreator()); });
    as(accounts::anna, useTheServiceForFriends);
}

TEST_F(SysVStaleRecords, AreReplacedByWhoeverMakesTheSegment) {
    for (const std::string& member : {accounts::anna, accounts::ben}) {
        for (const auto& open : {createForFriends, createOrFindForFriends}) {
            leaveOnlyTheRecord();
            as(member, [&] {
                const SharedMemory made = open("name");
                EXPECT_TRUE(made.isCreator());
                EXPECT_TRUE(made.isStillNamed());
                EXPECT_TRUE(findForFriends("name").isAttached());
            });
            as(accounts::anna, useTheServiceForFriends);
            EXPECT_EQ(sysv::allRecords().size(), 0U);
        }
    }
}

TEST_F(SysVStaleRecords, OfTheUserAloneAreReplaced) {
    create("name").makePersistent();
    sysv::removeFromKernel(sysv::onlySegment().id);
    EXPECT_FALSE(find("name").isAttached());
    EXPECT_TRUE(create("name").isCreator());
    sysv::useTheService();
}

TEST_F(SysVStaleRecords, OfAnotherIpcNamespaceNameNothingAndAreReplaced) {
    as(accounts::anna, [] { createForFriends("name").makePersistent(); });
    const auto here = sysv::onlySegment();
    for (const std::string& member : {accounts::ben, accounts::anna}) {
        elsewhereAs(member, [] {
            EXPECT_FALSE(findForFriends("name").isAttached());
            // Numbers begin anew there.
            for (int i = 0; i < 4; ++i) {
                sysv::plant(0600, std::string(200, '\0'));
            }
            const auto foreign = sysv::segments();
            SharedMemory made = createOrFindForFriends("name");
            EXPECT_TRUE(made.isCreator());
            EXPECT_TRUE(made.isStillNamed());
            EXPECT_TRUE(findForFriends("name").isAttached());
            made.makePersistent();
            made = SharedMemory();
            useTheServiceForFriends();
            EXPECT_EQ(sysv::segments().size(), foreign.size() + 1);
        });
        EXPECT_EQ(sysv::onlySegment(), here);
    }
    as(accounts::anna, [] { EXPECT_TRUE(createForFriends("name").isCreator()); });
    for (const std::string& member : {accounts::anna, accounts::ben}) {
        as(member, useTheServiceForFriends);
    }
    sysv::removeFromKernel(here.id);
}

TEST_F(SysVStaleRecords, ThatWereRemovedByHandLetAHandleSpareTheNextSegmentOfTheName) {
    as(accounts::anna, [] {
        SharedMemory earlier = createForFriends("name");
        EXPECT_TRUE(fs::remove(sysv::recordOf("name", accounts::friends)));
        SharedMemory later = createForFriends("name");
        EXPECT_TRUE(later.isCreator());
        EXPECT_FALSE(earlier.isStillNamed());
        earlier = SharedMemory();
        EXPECT_TRUE(later.isStillNamed());
        EXPECT_EQ(sysv::segments().size(), 1U);
    });
}

TEST_F(SysVStaleRecords, AreToldFromALaterOneThatIsTheSameFile) {
    // File systems give the numbers of removed files out again.
    SharedMemory earlier = create("name");
    const std::string path = sysv::recordOf("name");
    const std::string sameFile = "/dev/shm/Corvantis-0/same file";
    fs::create_hard_link(path, sameFile);
    find("name").markForDeletion();
    SharedMemory later = create("name");
    ASSERT_TRUE(later.isCreator());
    bytesOf(later)[0] = 7;
    later.makePersistent();
    const std::string content = sysv::fileContent(path);
    ASSERT_EQ(::chmod(sameFile.c_str(), 0600), 0);
    std::ofstream(sameFile, std::ios::binary) << content;
    ASSERT_EQ(::chmod(sameFile.c_str(), 0400), 0);
    fs::rename(sameFile, path);

    EXPECT_FALSE(earlier.isStillNamed());
    earlier = SharedMemory();
    SharedMemory found = find("name");
    ASSERT_TRUE(found.isAttached());
    EXPECT_EQ(bytesOf(found)[0], 7);
    found.markForDeletion();
}

} // namespace
