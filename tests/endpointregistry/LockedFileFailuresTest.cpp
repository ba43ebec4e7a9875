#include "endpointregistry/LockedFile.h"

#include "foundation/os/FileIdentity.h"
#include "tests/endpointregistry/FoldersRefusedCalls.h"
#include "tests/endpointregistry/FoldersTools.h"
#include "tests/endpointregistry/LockedFileTools.h"
#include "tests/endpointregistry/LoggersReportedFailure.h"
#include "tests/support/ForkedProcess.h"

#include <array>
#include <cerrno>
#include <functional>
#include <gtest/gtest.h>
#include <stdexcept>
#include <string>
#include <sys/stat.h>
#include <unistd.h>
#include <vector>

using agent::spf::endpointregistry::LockedFile;
using foundation::os::identityAt;

namespace {

using Names = std::vector<std::string>;
using Factory = LockedFile (*)(const std::string&, const std::string&, const std::string&);

constexpr std::array<Factory, 3> factories{LockedFile::createAndTryLock, LockedFile::getLock,
                                           LockedFile::tryLock};
constexpr std::array<Factory, 2> nonBlocking{LockedFile::createAndTryLock, LockedFile::tryLock};
constexpr std::array<Factory, 2> thatOpenExisting{LockedFile::getLock, LockedFile::tryLock};

const std::string folderInconsistency = "Endpoint Registry Error: File system inconsistency";
const std::string fileInconsistency = "System Error: File system inconsistency";
const std::string tooLong(256, 'n');

std::string notCreated(const std::string& path, int error) {
    return "LockedFile::lockFile(): Failed to create file: <" + path + ">. (Error " +
           std::to_string(error) + ")";
}

class LockedFileFailures : public tests::LockedFileTest {
protected:
    /// Expects the blocking factory to report the error, and the others to tell it.
    void expectEverywhere(const std::string& fileName, int error) {
        for (const Factory factory : nonBlocking) {
            tests::expectLogged(
                [&] {
                    const LockedFile file = factory(fileName, parent, "");
                    EXPECT_FALSE(file.isLocked());
                    EXPECT_EQ(file.getLockError(), error);
                },
                {});
        }
        tests::expectReported<std::runtime_error>(
            [&] { LockedFile::getLock(fileName, parent, ""); }, fileInconsistency,
            notCreated(folder() + fileName, error));
    }

    /// Expects that the call throws and that no descriptor is left open by it.
    template<typename Exception>
    static void expectNothingLeft(const std::function<void()>& call) {
        // The first failure may open what stays open for good.
        EXPECT_THROW(call(), Exception);
        const std::size_t before = tests::countDescriptors();
        EXPECT_THROW(call(), Exception);
        EXPECT_EQ(tests::countDescriptors(), before);
    }
};

class FailuresOfSharedFiles : public LockedFileFailures {
protected:
    void SetUp() override {
        tests::provideSharedFolder();
        LockedFile::getParentPath(parent, group, true);
    }

    /// Expects this of a child whose files cannot be handed to a trustee, while folders can.
    void expectReportedWhereFilesAreRefused(Factory factory) {
        EXPECT_EQ(tests::runInChild([&] {
                      tests::refuseOwnersOfRegularFiles(EPERM);
                      tests::expectReported<std::runtime_error>(
                          [&] { factory(name, parent, group); }, folderInconsistency,
                          "Utils::setTrustee(): Failed to change the group of: <" + shared + name +
                              "> to: <" + group + ">. (Error 1)");
                      expectNothingLeft<std::runtime_error>([&] { factory(name, parent, group); });
                  }),
                  0);
    }

    const std::string group = tests::ownGroup();
    const std::string shared = tests::sharedFolder(parent, group);
};

} // namespace

TEST_F(LockedFileFailures, ReportAnEmptyParent) {
    for (const Factory factory : factories) {
        tests::expectReported<std::invalid_argument>(
            [&] { factory(name, "", ""); }, "LockedFile parent name cannot be empty",
            "LockedFile::createParentFolder(): Parent name cannot be empty.");
    }
}

TEST_F(LockedFileFailures, ReportAnEmptyName) {
    for (const Factory factory : factories) {
        tests::expectReported<std::invalid_argument>(
            [&] { factory("", parent, ""); }, "LockedFile name cannot be empty",
            "LockedFile::lockFile(): Name cannot be empty.");
    }
}

TEST_F(LockedFileFailures, ReportAnEmptyParentBeforeAnEmptyName) {
    tests::expectThrown<std::invalid_argument>([] { LockedFile::tryLock("", "", ""); },
                                               "LockedFile parent name cannot be empty");
}

TEST_F(LockedFileFailures, ReportAnEmptyNameOnceTheFoldersAreMade) {
    EXPECT_THROW(LockedFile::tryLock("", parent, ""), std::invalid_argument);

    EXPECT_TRUE(LockedFile::exists("", parent, ""));
}

TEST_F(LockedFileFailures, ThrowTheSameWithLoggingOff) {
    tests::expectThrown<std::invalid_argument>([this] { LockedFile::tryLock(name, "", ""); },
                                               "LockedFile parent name cannot be empty");
    tests::expectThrown<std::invalid_argument>([this] { LockedFile::tryLock("", parent, ""); },
                                               "LockedFile name cannot be empty");
    tests::expectThrown<std::runtime_error>([this] { LockedFile::getLock(tooLong, parent, ""); },
                                            fileInconsistency);
}

TEST_F(LockedFileFailures, AreReportedByWaitingAloneWhereTheNameIsTooLong) {
    expectEverywhere(tooLong, ENAMETOOLONG);
}

TEST_F(LockedFileFailures, AreReportedByWaitingAloneWhereTheNameLeadsNowhere) {
    expectEverywhere("missing/file", ENOENT);
}

TEST_F(LockedFileFailures, AreReportedByWaitingAloneWhereAFileIsInThePlaceOfTheFolder) {
    LockedFile::getParentPath(parent, "", true);
    tests::makeFile(path(), 0400);

    expectEverywhere(name + "/below", ENOTDIR);
}

TEST_F(LockedFileFailures, LeaveNothingOpen) {
    for (const Factory factory : factories) {
        expectNothingLeft<std::invalid_argument>([&] { factory(name, "", ""); });
        expectNothingLeft<std::invalid_argument>([&] { factory("", parent, ""); });
    }
    expectNothingLeft<std::runtime_error>([&] { LockedFile::getLock(tooLong, parent, ""); });

    const std::size_t before = tests::countDescriptors();
    for (const Factory factory : nonBlocking) {
        factory(tooLong, parent, "");
    }
    EXPECT_EQ(tests::countDescriptors(), before);
}

TEST_F(LockedFileFailures, LeaveNothingOpenWhereAnotherHasTheLock) {
    const LockedFile holder = LockedFile::tryLock(name, parent, "");
    const std::size_t before = tests::countDescriptors();

    const LockedFile busy = LockedFile::tryLock(name, parent, "");
    const LockedFile taken = LockedFile::createAndTryLock(name, parent, "");

    EXPECT_EQ(tests::countDescriptors(), before);
}

TEST_F(LockedFileFailures, AreNoneForLocksThatAreLetGo) {
    LockedFile::tryLock(name, parent, "");
    const std::size_t before = tests::countDescriptors();
    for (const Factory factory : factories) {
        factory("other", parent, "");
        LockedFile::destruct("other", parent, "");
    }
    EXPECT_EQ(tests::countDescriptors(), before);
}

TEST_F(FailuresOfSharedFiles, LeaveNoFileWhereTheTrusteeIsNoGroup) {
    for (const Factory factory : factories) {
        expectNothingLeft<std::invalid_argument>([&] { factory(name, parent, "nobodys friends"); });
    }
    EXPECT_EQ(tests::namesIn(tests::sharedFolder(parent, "nobodys friends")), Names{});
}

TEST_F(FailuresOfSharedFiles, LeaveNoFileThatCouldNotBeHandedOver) {
    for (const Factory factory : factories) {
        expectReportedWhereFilesAreRefused(factory);
        EXPECT_EQ(tests::namesIn(shared), Names{});
    }
}

TEST_F(FailuresOfSharedFiles, LeaveAStaleFileThatCouldNotBeHandedOverUnlocked) {
    LockedFile::tryLock(name, parent, group);
    const auto before = identityAt(shared + name);
    for (const Factory factory : thatOpenExisting) {
        expectReportedWhereFilesAreRefused(factory);
        EXPECT_EQ(identityAt(shared + name), before);
        EXPECT_FALSE(tests::isHeld(shared + name));
    }
}

TEST_F(FailuresOfSharedFiles, LeaveAStaleFileUnlockedInTheProcessThatFailed) {
    LockedFile::tryLock(name, parent, group);
    EXPECT_EQ(tests::runInChild([this] {
                  tests::refuseOwnersOfRegularFiles(EPERM);
                  EXPECT_THROW(LockedFile::tryLock(name, parent, group), std::runtime_error);
                  EXPECT_FALSE(tests::isHeld(shared + name));
                  EXPECT_TRUE(LockedFile::exists(name, parent, group));
              }),
              0);
}
