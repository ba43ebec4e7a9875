#include "tests/platform/SysVTools.h"

#include <filesystem>
#include <gtest/gtest.h>
#include <stdexcept>
#include <string>
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
using sysv::Owner;
using tests::bytesOf;
using tests::SharedMemory;

/// What somebody outside the group can do to keep its members from sharing, or to be taken for one.
class SysVStrangers : public sysv::SysVUsersTest {
protected:
    static void expectMembersToShare() {
        Owner anna(accounts::anna, "name", accounts::friends, 9);
        as(accounts::ben, [] {
            EXPECT_EQ(bytesOf(findForFriends("name"))[0], 9);
            EXPECT_FALSE(createOrFindForFriends("name").isCreator());
        });
        anna.end();
    }
};

TEST_F(SysVStrangers, CannotReachTheRecords) {
    as(accounts::anna, [] { createForFriends("name").makePersistent(); });
    as(accounts::anna, [] { create("own").makePersistent(); });
    const std::string record = sysv::recordOf("name", accounts::friends);
    const std::string own = sysv::recordOf("own", "", accounts::userId(accounts::anna));
    for (const std::string& path : {record, own}) {
        as(accounts::carl, [&] {
            std::error_code error;
            EXPECT_FALSE(fs::exists(path, error));
            EXPECT_TRUE(error);
            EXPECT_FALSE(fs::remove(path, error));
            EXPECT_TRUE(error);
            fs::rename(path, path + "2", error);
            EXPECT_TRUE(error);
            EXPECT_NE(::link("/etc/passwd", (path + "2").c_str()), 0);
        });
        EXPECT_TRUE(fs::exists(path));
    }
    as(accounts::anna, [] {
        findForFriends("name").markForDeletion();
        find("own").markForDeletion();
    });
}

TEST_F(SysVStrangers, CannotFillTheTableOfSegmentsUnderTheirNames) {
    // However many there are of whatever kind: a name is no matter of the kernel.
    constexpr int many = 64;
    as(accounts::carl, [] {
        for (int i = 0; i < many; ++i) {
            sysv::giveTo(sysv::plant(0600, std::string(200, '\0')),
                         accounts::userId(accounts::carl), accounts::groupId(accounts::friends),
                         0660);
        }
    });
    const auto planted = sysv::segments();
    expectMembersToShare();
    EXPECT_EQ(sysv::segments(), planted);
    for (const auto& segment : planted) {
        sysv::removeFromKernel(segment.id);
    }
}

TEST_F(SysVStrangers, WhoMakeTheGroupsFolderFirstAreNotedAndAreNotTrusted) {
    fs::create_directories(sysv::groupsRecords);
    for (const std::string& path : {tests::commonFolder + "/Corvantis", sysv::groupsRecords}) {
        fs::permissions(path, fs::perms::all);
    }
    const std::string folder = sysv::recordFolder(accounts::friends);
    for (const mode_t mode : {0700U, 0770U, 0777U}) {
        as(accounts::carl, [&] {
            fs::create_directory(folder);
            fs::permissions(folder, static_cast<fs::perms>(mode));
        });
        for (const std::string& member : {accounts::anna, accounts::ben}) {
            as(member, [] {
                EXPECT_THROW(findForFriends("name"), std::runtime_error);
                EXPECT_THROW(createForFriends("name"), std::runtime_error);
                EXPECT_THROW(createOrFindForFriends("name"), std::runtime_error);
                EXPECT_TRUE(create("name").isCreator()) << "the private ones are not concerned";
                EXPECT_TRUE(create("name", tests::someSize, accounts::family).isCreator());
            });
        }
        EXPECT_TRUE(fs::is_empty(folder));
        fs::remove(folder);
    }
    expectMembersToShare();
}

} // namespace
