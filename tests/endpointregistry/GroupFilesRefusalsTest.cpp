#include "endpointregistry/detail/GroupFiles.h"

#include "endpointregistry/detail/GroupFolder.h"
#include "tests/endpointregistry/FoldersTools.h"
#include "tests/endpointregistry/GroupFilesTools.h"
#include "tests/endpointregistry/LockedFileTools.h"
#include "tests/endpointregistry/LoggersReportedFailure.h"
#include "tests/endpointregistry/SharingTools.h"
#include "tests/support/TestAccounts.h"

#include <cerrno>
#include <filesystem>
#include <gtest/gtest.h>
#include <stdexcept>
#include <string>
#include <sys/stat.h>
#include <system_error>
#include <unistd.h>
#include <vector>

using namespace agent::spf::endpointregistry;
using tests::as;
using tests::Names;

using namespace tests::groupfiles;

namespace {

namespace accounts = tests::accounts;
namespace fs = std::filesystem;
using accounts::anna;
using accounts::ben;
using accounts::carl;
using accounts::friends;

/// A file of anna's, in folders of hers, that nobody holds any more.
void leaveAnnasFile() {
    as(anna, [] {
        LockedFile file = groupfiles::tryLock(name, parent, friends);
        EXPECT_TRUE(file.isLocked());
    });
}

class GroupFilesRefusal : public tests::SharingTest {};

} // namespace

TEST_F(GroupFilesRefusal, RefusesFilesThatDoNotBelongToTheGroup) {
    const auto make = [](const std::string& owner, const std::string& group, mode_t mode) {
        tests::makeFile(path, 0600);
        if (::chown(path.c_str(), accounts::userId(owner), accounts::groupId(group)) != 0 ||
            ::chmod(path.c_str(), mode) != 0) {
            throw std::system_error(errno, std::generic_category(), path);
        }
    };
    leaveAnnasFile();
    fs::remove(path);
    struct Case {
        std::string owner;
        std::string group;
        mode_t mode;
    };
    for (const Case& file : {Case{anna, anna, 0444}, Case{anna, friends, 0472},
                             Case{anna, friends, 0477}, Case{anna, friends, 0400}}) {
        make(file.owner, file.group, file.mode);
        const Standing before(path);
        as(ben, [] {
            EXPECT_THROW(groupfiles::getLock(name, parent, friends), std::runtime_error);
            try {
                EXPECT_FALSE(groupfiles::tryLock(name, parent, friends).isLocked());
            } catch (const std::runtime_error&) {
                SUCCEED();
            }
            EXPECT_FALSE(tests::statusOf(path).st_nlink == 0);
        });
        EXPECT_TRUE(Standing(path) == before);
        fs::remove(path);
    }
}

TEST_F(GroupFilesRefusal, RefusesNoFileThatOthersMayOnlyRead) {
    leaveAnnasFile();
    for (const mode_t mode : {0474U, 0475U, 0070U, 0775U}) {
        ASSERT_EQ(::chmod(path.c_str(), mode), 0);
        as(ben, [] {
            EXPECT_TRUE(groupfiles::getLock(name, parent, friends).isLocked());
            EXPECT_TRUE(groupfiles::tryLock(name, parent, friends).isLocked());
        });
        EXPECT_EQ(tests::modeOf(path), mode);
    }
}

TEST_F(GroupFilesRefusal, FollowsNoLinkInPlaceOfAFile) {
    leaveAnnasFile();
    fs::remove(path);
    const std::string target = "/home/Shared/target";
    tests::makeFile(target, 0470);
    ASSERT_EQ(::chown(target.c_str(), accounts::userId(anna), accounts::groupId(friends)), 0);
    fs::create_symlink(target, path);
    as(ben, [] {
        EXPECT_THROW(groupfiles::getLock(name, parent, friends), std::runtime_error);
        EXPECT_FALSE(groupfiles::createAndTryLock(name, parent, friends).isLocked());
    });
    EXPECT_TRUE(fs::is_symlink(path));
    EXPECT_TRUE(fs::exists(target));
}

TEST_F(GroupFilesRefusal, MakesNothingForStrangers) {
    leaveAnnasFile();
    as(carl, [] {
        EXPECT_THROW(groupfiles::createAndTryLock(name, parent, friends), std::runtime_error);
        EXPECT_THROW(groupfiles::tryLock(name, parent, friends), std::runtime_error);
        EXPECT_THROW(groupfiles::getLock(name, parent, friends), std::runtime_error);
        EXPECT_THROW(groupfiles::tryOpenFolder(parent, friends), std::runtime_error);
    });
    EXPECT_EQ(tests::namesIn(folder), Names{name});
    expectStanding(folder, anna, friends, 0770);
}

TEST_F(GroupFilesRefusal, KnowsNoUnknownGroup) {
    as(anna, [] {
        EXPECT_THROW(groupfiles::tryLock(name, parent, std::string("no group")),
                     std::invalid_argument);
        EXPECT_THROW(GroupFolder::openOrRestore(parent, std::string("no group")),
                     std::invalid_argument);
    });
}

TEST_F(GroupFilesRefusal, KnowsNoEmptyNames) {
    for (const std::string& trustee : {std::string(), friends}) {
        as(anna, [&trustee] {
            tests::expectReported<std::invalid_argument>(
                [&] { groupfiles::tryLock("", parent, trustee); },
                "LockedFile name cannot be empty", "LockedFile::lockFile(): Name cannot be empty.");
        });
        as(anna, [&trustee] {
            tests::expectReported<std::invalid_argument>(
                [&] { groupfiles::tryLock(name, "", trustee); },
                "LockedFile parent name cannot be empty",
                "LockedFile::createParentFolder(): Parent name cannot be empty.");
        });
    }
}
