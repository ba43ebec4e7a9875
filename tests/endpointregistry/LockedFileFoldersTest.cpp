#include "endpointregistry/LockedFile.h"

#include "endpointregistry/EntryName.h"
#include "tests/endpointregistry/FoldersTools.h"
#include "tests/endpointregistry/LockedFileTools.h"
#include "tests/endpointregistry/LoggersReportedFailure.h"
#include "tests/support/ForkedProcess.h"
#include "tests/support/TestAccounts.h"

#include <fstream>
#include <functional>
#include <gtest/gtest.h>
#include <stdexcept>
#include <string>
#include <sys/stat.h>
#include <unistd.h>

using agent::spf::endpointregistry::hashString;
using agent::spf::endpointregistry::LockedFile;
namespace accounts = tests::accounts;

namespace {

const std::string folderInconsistency = "Endpoint Registry Error: File system inconsistency";
const std::string fileInconsistency = "System Error: File system inconsistency";

class SharedParentPath : public tests::LockedFileTest {
protected:
    void SetUp() override { tests::provideSharedFolder(); }

    const std::string group = tests::ownGroup();
    const std::string shared = tests::sharedFolder(parent, group);
};

/// Runs the body in children of their own, as it is, and under two other umasks.
void underSeveralUmasks(const std::function<void(const std::string& suffix)>& body) {
    for (const mode_t mask : {0000U, 0022U, 0077U}) {
        EXPECT_EQ(tests::runInChild([&] {
                      const tests::Umask umask(mask);
                      body(std::to_string(mask));
                  }),
                  0)
            << mask;
    }
}

/// Takes the folder below which users share away for as long as it lives.
class NoSharedFolder {
public:
    NoSharedFolder() { ::rename("/home/Shared", "/home/Shared.away"); }
    ~NoSharedFolder() { ::rename("/home/Shared.away", "/home/Shared"); }

    NoSharedFolder(const NoSharedFolder&) = delete;
    NoSharedFolder& operator=(const NoSharedFolder&) = delete;
};

} // namespace

using PrivateParentPath = tests::LockedFileTest;
using TrusteeOfFolder = SharedParentPath;

TEST_F(PrivateParentPath, LiesBelowTheBaseFolderOfTheUser) {
    EXPECT_EQ(LockedFile::getParentPath(parent, "", true), folder());
    EXPECT_EQ(LockedFile::getParentPath(parent, "", false), folder());
}

TEST_F(PrivateParentPath, IsNotMadeUnlessAskedFor) {
    LockedFile::getParentPath(parent, "", false);
    EXPECT_NE(::access(folder().c_str(), F_OK), 0);

    LockedFile::getParentPath(parent, "", true);
    EXPECT_TRUE(S_ISDIR(tests::statusOf(folder()).st_mode));
}

TEST_F(PrivateParentPath, KeepsAnEmptyParentAsAnEmptyLevel) {
    EXPECT_EQ(LockedFile::getParentPath("", "", false), tests::privateBase() + "//");
}

TEST_F(PrivateParentPath, BelongsToTheUserAloneWhateverTheUmask) {
    underSeveralUmasks([this](const std::string& suffix) {
        LockedFile::getParentPath(parent + suffix, "", true);
        for (const std::string& level :
             {tests::privateBase(), tests::privateFolder(parent + suffix)}) {
            EXPECT_EQ(tests::modeOf(level), 0700U) << level;
            EXPECT_EQ(tests::statusOf(level).st_uid, ::geteuid()) << level;
        }
    });
}

TEST_F(PrivateParentPath, HoldsFilesThatTheirOwnerMayOnlyReadWhateverTheUmask) {
    underSeveralUmasks([this](const std::string& suffix) {
        const LockedFile created = LockedFile::createAndTryLock("created", parent + suffix, "");
        const LockedFile tried = LockedFile::tryLock("tried", parent + suffix, "");
        const LockedFile got = LockedFile::getLock("got", parent + suffix, "");
        for (const char* const file : {"created", "tried", "got"}) {
            const std::string path = tests::privateFolder(parent + suffix) + file;
            EXPECT_EQ(tests::modeOf(path), 0400U) << file;
            EXPECT_EQ(tests::statusOf(path).st_uid, ::geteuid()) << file;
        }
    });
}

TEST_F(PrivateParentPath, LeavesTheModeOfAnExistingFolder) {
    LockedFile::getParentPath(parent, "", true);
    ASSERT_EQ(::chmod(folder().c_str(), 0755), 0);

    LockedFile::getParentPath(parent, "", true);

    EXPECT_EQ(tests::modeOf(folder()), 0755U);
}

TEST_F(PrivateParentPath, ReportsALevelThatCannotBeMade) {
    tests::expectReported<std::runtime_error>(
        [this] { LockedFile::getParentPath(parent + "/below", "", true); }, folderInconsistency,
        "Utils::createFolder(): Failed to create the directory: <" +
            tests::privateFolder(parent + "/below") + ">. (Error 2)");
}

TEST_F(SharedParentPath, LiesBelowTheSharedFolderUnderTheHashOfTheTrustee) {
    EXPECT_EQ(LockedFile::getParentPath(parent, group, true), shared);
    EXPECT_EQ(LockedFile::getParentPath(parent, group, false), shared);
    EXPECT_EQ(LockedFile::getParentPath(parent, "grp", false),
              "/home/Shared/Corvantis/" + parent + "/26cb632b19fb46fe/");
}

TEST_F(SharedParentPath, IsNotMadeUnlessAskedFor) {
    LockedFile::getParentPath(parent, group, false);

    EXPECT_NE(::access(("/home/Shared/Corvantis/" + parent).c_str(), F_OK), 0);
}

TEST_F(SharedParentPath, IsOpenToAllButForItsLastLevelWhateverTheUmask) {
    underSeveralUmasks([this](const std::string& suffix) {
        const std::string middle = "/home/Shared/Corvantis/" + parent + suffix;
        LockedFile::getParentPath(parent + suffix, group, true);
        EXPECT_EQ(tests::modeOf("/home/Shared/Corvantis"), 0777U);
        EXPECT_EQ(tests::modeOf(middle), 0777U);
        const std::string last = middle + "/" + hashString(group);
        EXPECT_EQ(tests::modeOf(last), 0770U);
        EXPECT_EQ(tests::statusOf(last).st_uid, ::geteuid());
        EXPECT_EQ(tests::statusOf(last).st_gid, ::getegid());
    });
}

TEST_F(SharedParentPath, HoldsFilesThatTheirOwnerMayOnlyReadAndTheGroupMayAllWhateverTheUmask) {
    underSeveralUmasks([this](const std::string& suffix) {
        const LockedFile created = LockedFile::createAndTryLock("created", parent + suffix, group);
        const LockedFile tried = LockedFile::tryLock("tried", parent + suffix, group);
        const LockedFile got = LockedFile::getLock("got", parent + suffix, group);
        for (const char* const file : {"created", "tried", "got"}) {
            const std::string path = tests::sharedFolder(parent + suffix, group) + file;
            EXPECT_EQ(tests::modeOf(path), 0470U) << file;
            EXPECT_EQ(tests::statusOf(path).st_uid, ::geteuid()) << file;
            EXPECT_EQ(tests::statusOf(path).st_gid, ::getegid()) << file;
            EXPECT_TRUE(tests::isHeld(path)) << file;
        }
        EXPECT_TRUE(created.isLocked() && tried.isLocked() && got.isLocked());
    });
}

TEST_F(SharedParentPath, HandsAStaleFileToTheTrusteeAgain) {
    LockedFile::getParentPath(parent, group, true);
    tests::makeFile(shared + name, 0400);

    EXPECT_TRUE(LockedFile::tryLock(name, parent, group).isLocked());

    EXPECT_EQ(tests::modeOf(shared + name), 0470U);
}

TEST_F(SharedParentPath, MakesNothingWhereTheNameOfAFileIsTaken) {
    LockedFile::tryLock(name, parent, group);
    const LockedFile late = LockedFile::createAndTryLock(name, parent, group);

    EXPECT_FALSE(late.isLocked());
    EXPECT_EQ(tests::namesIn(shared), std::vector<std::string>{name});
}

TEST_F(SharedParentPath, RestoresTheModesOfItsLevels) {
    LockedFile::getParentPath(parent, group, true);
    const std::string middle = "/home/Shared/Corvantis/" + parent;
    ASSERT_EQ(::chmod(middle.c_str(), 01700), 0);
    ASSERT_EQ(::chmod(shared.c_str(), 0700), 0);

    LockedFile::getParentPath(parent, group, true);

    EXPECT_EQ(tests::modeOf(middle), 01777U);
    EXPECT_EQ(tests::modeOf(shared), 0770U);
}

TEST_F(SharedParentPath, KeepsTheLevelsItMadeWhereTheTrusteeIsNoGroup) {
    tests::expectReported<std::invalid_argument>(
        [this] { LockedFile::getParentPath(parent, "nobodys friends", true); }, folderInconsistency,
        "Utils::setTrustee(): Failed to find the specified group: <nobodys friends>. (Error 0)");

    EXPECT_EQ(tests::modeOf(tests::sharedFolder(parent, "nobodys friends")), 0700U);
}

TEST_F(SharedParentPath, IsToldForAnyTrusteeWhereNothingIsMade) {
    EXPECT_EQ(LockedFile::getParentPath(parent, "nobodys friends", false),
              tests::sharedFolder(parent, "nobodys friends"));
}

TEST_F(SharedParentPath, ReportsThatTheSharedFolderIsMissing) {
    const NoSharedFolder noSharedFolder;
    for (const bool create : {true, false}) {
        tests::expectReported<std::runtime_error>(
            [&] { LockedFile::getParentPath(parent, group, create); },
            "Error: /home/Shared folder does not exist",
            "getParentPath(): /home/Shared folder does not exist");
    }
    EXPECT_THROW(LockedFile::tryLock(name, parent, group), std::runtime_error);
    EXPECT_THROW(LockedFile::exists(name, parent, group), std::runtime_error);
    EXPECT_THROW(LockedFile::isLocked(name, parent, group), std::runtime_error);
    EXPECT_THROW(LockedFile::filterNames({}, parent, group), std::runtime_error);
    EXPECT_NE(::access("/home/Shared", F_OK), 0);
}

TEST_F(SharedParentPath, IsOpenToATrusteeOfAnotherUser) {
    if (!accounts::available()) {
        GTEST_SKIP() << accounts::whyNot;
    }
    const LockedFile file = LockedFile::createAndTryLock(name, parent, accounts::friends);
    const std::string path = tests::sharedFolder(parent, accounts::friends);

    EXPECT_EQ(tests::statusOf(path).st_gid, accounts::groupId(accounts::friends));
    EXPECT_EQ(tests::statusOf(path + name).st_gid, accounts::groupId(accounts::friends));
    EXPECT_EQ(file.getTrustee(), accounts::friends);
}

TEST_F(TrusteeOfFolder, IsEmptyForAPrivateFile) {
    EXPECT_EQ(LockedFile::createAndTryLock(name, parent, "").getTrustee(), "");
}

TEST_F(TrusteeOfFolder, IsTheGroupOfASharedFile) {
    EXPECT_EQ(LockedFile::createAndTryLock(name, parent, group).getTrustee(), group);
}

TEST_F(TrusteeOfFolder, IsToldByAnObjectThatIsNotLocked) {
    const LockedFile holder = LockedFile::tryLock(name, parent, group);

    EXPECT_EQ(LockedFile::tryLock(name, parent, group).getTrustee(), group);
}

TEST_F(TrusteeOfFolder, IsWhatTheModeOfTheFolderSaysAndNotThatOfTheFile) {
    const LockedFile file = LockedFile::tryLock(name, parent, "");

    ASSERT_EQ(::chmod(path().c_str(), 0470), 0);
    EXPECT_EQ(file.getTrustee(), "");
    for (const mode_t mode : {0750U, 0730U, 0760U, 0707U}) {
        ASSERT_EQ(::chmod(folder().c_str(), mode), 0);
        EXPECT_EQ(file.getTrustee(), "") << mode;
    }
    ASSERT_EQ(::chmod(folder().c_str(), 0770), 0);
    EXPECT_EQ(file.getTrustee(), group);
}

TEST_F(TrusteeOfFolder, IsReportedWhereTheFolderIsGone) {
    const LockedFile file = LockedFile::createAndTryLock(name, parent, "");
    ASSERT_EQ(::unlink(path().c_str()), 0);
    ASSERT_EQ(::rmdir(folder().c_str()), 0);

    tests::expectReported<std::runtime_error>([&] { file.getTrustee(); }, fileInconsistency,
                                              "getTrustee(): Failed to stat the path: <" +
                                                  folder() + ">. (Error 2)");
}

TEST_F(TrusteeOfFolder, IsReportedWhereTheGroupHasNoName) {
    if (!accounts::available()) {
        GTEST_SKIP() << accounts::whyNot;
    }
    constexpr gid_t namelessGroup = 54321;
    const LockedFile file = LockedFile::tryLock(name, parent, group);
    ASSERT_EQ(::chown(shared.c_str(), 0, namelessGroup), 0);

    tests::expectReported<std::runtime_error>(
        [&] { file.getTrustee(); }, fileInconsistency,
        "getTrustee(): Failed to get the group struct for: <" + shared + ">. (Error 0)");
}
