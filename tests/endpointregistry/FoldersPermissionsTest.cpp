#include "endpointregistry/Folders.h"

#include "tests/endpointregistry/FoldersRefusedCalls.h"
#include "tests/endpointregistry/FoldersTools.h"
#include "tests/endpointregistry/LoggersReportedFailure.h"
#include "tests/support/ForkedProcess.h"
#include "tests/support/TestAccounts.h"

#include <cerrno>
#include <fstream>
#include <gtest/gtest.h>
#include <stdexcept>
#include <string>
#include <sys/stat.h>
#include <sys/types.h>
#include <system_error>
#include <unistd.h>

using namespace agent::spf::endpointregistry;
namespace accounts = tests::accounts;

namespace {

const std::string inconsistency = "Endpoint Registry Error: File system inconsistency";

void giveTo(const std::string& path, const std::string& user, const std::string& group) {
    if (::chown(path.c_str(), accounts::userId(user), accounts::groupId(group)) != 0) {
        throw std::system_error(errno, std::generic_category(), path);
    }
}

/// A folder that holds others of several owners and modes.
class Permissions : public testing::Test {
protected:
    std::string folderOfMode(mode_t mode) {
        std::string path = scratch / std::to_string(++folders);
        tests::makeFolder(path, mode);
        return path;
    }

    const tests::ScratchFolder scratch;

private:
    int folders = 0;
};

class PermissionsAmongUsers : public Permissions {
protected:
    void SetUp() override {
        if (!accounts::available()) {
            GTEST_SKIP() << accounts::whyNot;
        }
    }

    /// Runs the body in a child as anna, and expects that all went well there.
    template<typename Body>
    void asAnna(const Body& body) {
        EXPECT_EQ(tests::runInChild([&] {
                      accounts::become(accounts::anna);
                      body();
                  }),
                  0);
    }

    std::string folderOf(const std::string& user, const std::string& group, mode_t mode) {
        std::string path = folderOfMode(mode);
        giveTo(path, user, group);
        return path;
    }
};

} // namespace

using MakePublic = Permissions;
using MakePublicAmongUsers = PermissionsAmongUsers;
using SetTrustee = PermissionsAmongUsers;

TEST_F(MakePublic, LetsEverybodyReadWriteAndEnter) {
    for (const mode_t mode : {0000U, 0700U, 0755U, 0776U, 0377U}) {
        const std::string path = folderOfMode(mode);
        tests::expectLogged([&] { makePublic(path); }, {});
        EXPECT_EQ(tests::modeOf(path), 0777U) << mode;
    }
}

TEST_F(MakePublic, DoesNotObeyTheUmask) {
    const tests::Umask strict(0077);
    const std::string path = folderOfMode(0700);

    makePublic(path);

    EXPECT_EQ(tests::modeOf(path), 0777U);
}

TEST_F(MakePublic, KeepsTheOtherModeBits) {
    const std::string sticky = folderOfMode(01700);
    const std::string setGroupId = folderOfMode(02750);

    makePublic(sticky);
    makePublic(setGroupId);

    EXPECT_EQ(tests::modeOf(sticky), 01777U);
    EXPECT_EQ(tests::modeOf(setGroupId), 02777U);
}

TEST_F(MakePublic, ChangesNothingWhereNothingIsToChange) {
    const std::string path = folderOfMode(01777);

    EXPECT_EQ(tests::runInChild([&] {
                  tests::refuseModeOf(path, EPERM);
                  tests::expectLogged([&] { makePublic(path); }, {});
              }),
              0);
}

TEST_F(MakePublic, ReportsAPathThatIsNotThere) {
    const std::string path = scratch / "missing";

    tests::expectReported<std::runtime_error>([&] { makePublic(path); }, inconsistency,
                                              "Utils::makePublic(): Failed to stat the path: <" +
                                                  path + ">. (Error 2)");
}

TEST_F(MakePublic, ReportsAModeThatCannotBeChanged) {
    const std::string path = folderOfMode(0700);

    EXPECT_EQ(tests::runInChild([&] {
                  tests::refuseModeOf(path, EROFS);
                  tests::expectReported<std::runtime_error>(
                      [&] { makePublic(path); }, inconsistency,
                      "Utils::makePublic(): Failed to change permissions of: <" + path +
                          "> to make it public. (Error 30)");
              }),
              0);
    EXPECT_EQ(tests::modeOf(path), 0700U);
}

TEST_F(MakePublicAmongUsers, SucceedsOnAPublicFolderOfAnother) {
    const std::string path = folderOfMode(0777);

    asAnna([&] { tests::expectLogged([&] { makePublic(path); }, {}); });
}

TEST_F(MakePublicAmongUsers, ReportsAFolderOfAnotherThatIsNotPublic) {
    const std::string path = folderOfMode(0755);

    asAnna([&] {
        tests::expectReported<std::runtime_error>(
            [&] { makePublic(path); }, inconsistency,
            "Utils::makePublic(): Failed to change permissions of: <" + path +
                "> to make it public. (Error 1)");
    });
    EXPECT_EQ(tests::modeOf(path), 0755U);
}

TEST_F(SetTrustee, HandsAFolderToTheGroupAndToTheCaller) {
    const std::string path = folderOf("anna", "anna", 0700);

    asAnna([&] { tests::expectLogged([&] { setTrustee(path, "friends"); }, {}); });

    EXPECT_EQ(tests::modeOf(path), 0770U);
    EXPECT_EQ(tests::statusOf(path).st_uid, accounts::userId("anna"));
    EXPECT_EQ(tests::statusOf(path).st_gid, accounts::groupId("friends"));
}

TEST_F(SetTrustee, GivesTheGroupMoreThanTheOwnerOfAReadOnlyFile) {
    const std::string path = scratch / "file";
    std::ofstream(path) << "content";
    ASSERT_EQ(::chmod(path.c_str(), 0400), 0);
    giveTo(path, "anna", "anna");

    asAnna([&] { setTrustee(path, "friends"); });

    EXPECT_EQ(tests::modeOf(path), 0470U);
}

TEST_F(SetTrustee, DoesNotObeyTheUmask) {
    const tests::Umask strict(0077);
    const std::string path = folderOfMode(0700);

    setTrustee(path, "friends");

    EXPECT_EQ(tests::modeOf(path), 0770U);
}

TEST_F(SetTrustee, KeepsTheOtherModeBits) {
    const std::string path = folderOfMode(03705);

    setTrustee(path, "friends");

    EXPECT_EQ(tests::modeOf(path), 03775U);
}

TEST_F(SetTrustee, CompletesTheGroupsBits) {
    for (const mode_t mode : {0700U, 0750U, 0730U, 0760U, 0770U}) {
        const std::string path = folderOfMode(mode);
        setTrustee(path, "friends");
        EXPECT_EQ(tests::modeOf(path), 0770U) << mode;
    }
}

TEST_F(SetTrustee, MakesTheCallerTheOwnerWhereTheSystemLetsIt) {
    const std::string path = folderOf("ben", "friends", 0770);

    setTrustee(path, "friends");

    EXPECT_EQ(tests::statusOf(path).st_uid, 0U);
}

TEST_F(SetTrustee, ChangesTheOwnerEvenWhereNothingIsToChange) {
    const std::string path = folderOf("anna", "friends", 0770);

    asAnna([&] {
        tests::refuseOwnerOf(path, EDQUOT);
        EXPECT_THROW(setTrustee(path, "friends"), std::runtime_error);
    });
}

TEST_F(SetTrustee, DoesNotChangeAModeThatFits) {
    const std::string path = folderOf("anna", "anna", 0770);

    asAnna([&] {
        tests::refuseModeOf(path, EPERM);
        tests::expectLogged([&] { setTrustee(path, "friends"); }, {});
    });
    EXPECT_EQ(tests::statusOf(path).st_gid, accounts::groupId("friends"));
}

TEST_F(SetTrustee, TakesAnUnknownGroupForAnInvalidArgument) {
    const std::string path = folderOfMode(0700);

    tests::expectReported<std::invalid_argument>(
        [&] { setTrustee(path, "nobodys friends"); }, inconsistency,
        "Utils::setTrustee(): Failed to find the specified group: <nobodys friends>. (Error 0)");
    EXPECT_EQ(tests::modeOf(path), 0700U);
}

TEST_F(SetTrustee, TakesTheEmptyGroupForAnInvalidArgument) {
    const std::string path = folderOfMode(0700);

    tests::expectReported<std::invalid_argument>(
        [&] { setTrustee(path, ""); }, inconsistency,
        "Utils::setTrustee(): Failed to find the specified group: <>. (Error 0)");
}

TEST_F(SetTrustee, ReportsAPathThatIsNotThere) {
    const std::string path = scratch / "missing";

    tests::expectReported<std::runtime_error>([&] { setTrustee(path, "friends"); }, inconsistency,
                                              "Utils::setTrustee(): Failed to change the group "
                                              "of: <" +
                                                  path + "> to: <friends>. (Error 2)");
}

TEST_F(SetTrustee, LooksForTheGroupBeforeThePath) {
    EXPECT_THROW(setTrustee(scratch / "missing", "nobodys friends"), std::invalid_argument);
}

TEST_F(SetTrustee, ReportsAnEntryOfAnotherEvenWhereNothingIsToChange) {
    const std::string path = folderOf("ben", "friends", 0770);

    asAnna([&] {
        tests::expectReported<std::runtime_error>(
            [&] { setTrustee(path, "friends"); }, inconsistency,
            "Utils::setTrustee(): Failed to change the group of: <" + path +
                "> to: <friends>. (Error 1)");
    });
    EXPECT_EQ(tests::statusOf(path).st_uid, accounts::userId("ben"));
}

TEST_F(SetTrustee, ReportsAGroupThatTheCallerIsNoMemberOf) {
    const std::string path = folderOf("anna", "anna", 0700);

    asAnna([&] {
        tests::expectReported<std::runtime_error>(
            [&] { setTrustee(path, "carl"); }, inconsistency,
            "Utils::setTrustee(): Failed to change the group of: <" + path +
                "> to: <carl>. (Error 1)");
    });
    EXPECT_EQ(tests::modeOf(path), 0700U);
}

TEST_F(SetTrustee, ReportsAnEntryWhoseModeCannotBeRead) {
    const std::string path = folderOfMode(0700);

    EXPECT_EQ(tests::runInChild([&] {
                  tests::refuseStatusOf(path, EACCES);
                  tests::expectReported<std::runtime_error>(
                      [&] { setTrustee(path, "friends"); }, inconsistency,
                      "Utils::setTrustee(): Failed to stat the path: <" + path + ">. (Error 13)");
              }),
              0);
    EXPECT_EQ(tests::statusOf(path).st_gid, accounts::groupId("friends"));
}

TEST_F(SetTrustee, ReportsAModeThatCannotBeChanged) {
    const std::string path = folderOfMode(0700);

    EXPECT_EQ(tests::runInChild([&] {
                  tests::refuseModeOf(path, EROFS);
                  tests::expectReported<std::runtime_error>(
                      [&] { setTrustee(path, "friends"); }, inconsistency,
                      "Utils::setTrustee(): Failed to change permissions of: <" + path +
                          "> to include the group. (Error 30)");
              }),
              0);
}

TEST_F(SetTrustee, ThrowsTheSameWithLoggingOff) {
    tests::expectThrown<std::invalid_argument>(
        [&] { setTrustee(scratch.path(), "nobodys friends"); }, inconsistency);
    tests::expectThrown<std::runtime_error>([&] { setTrustee(scratch / "missing", "friends"); },
                                            inconsistency);
}
