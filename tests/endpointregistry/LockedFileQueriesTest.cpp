#include "endpointregistry/LockedFile.h"

#include "foundation/os/DirectoryStream.h"
#include "foundation/os/FileIdentity.h"
#include "tests/endpointregistry/FoldersTools.h"
#include "tests/endpointregistry/LockedFileTools.h"
#include "tests/endpointregistry/LoggersReportedFailure.h"
#include "tests/support/ForkedProcess.h"
#include "tests/support/TestAccounts.h"

#include <algorithm>
#include <gtest/gtest.h>
#include <optional>
#include <stdexcept>
#include <string>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>
#include <vector>

using agent::spf::endpointregistry::LockedFile;
using foundation::os::identityAt;
namespace accounts = tests::accounts;

namespace {

using Names = std::vector<std::string>;

const std::string inconsistency = "System Error: File system inconsistency";
const std::string tooLong(256, 'n');

/// A folder with a few files.
class FilterNames : public tests::LockedFileTest {
protected:
    void SetUp() override {
        LockedFile::getParentPath(parent, "", true);
        for (const std::string& file : files) {
            tests::makeFile(folder() + file, 0400);
        }
    }

    Names filtered(const Names& parts) const {
        Names names = LockedFile::filterNames(parts, parent, "");
        std::sort(names.begin(), names.end());
        return names;
    }

    const Names files{".hidden", "abc", "abd", "bcd", "xabcabcy"};
};

} // namespace

using Exists = tests::LockedFileTest;
using IsLocked = tests::LockedFileTest;
using Destruct = tests::LockedFileTest;
using FilterNamesElsewhere = tests::LockedFileTest;

TEST_F(Exists, TellsWhetherThereIsAFileOfThatName) {
    EXPECT_FALSE(LockedFile::exists(name, parent, ""));
    {
        const LockedFile file = LockedFile::createAndTryLock(name, parent, "");
        EXPECT_TRUE(LockedFile::exists(name, parent, ""));
    }
    EXPECT_FALSE(LockedFile::exists(name, parent, ""));
    LockedFile::tryLock(name, parent, "");
    EXPECT_TRUE(LockedFile::exists(name, parent, ""));
}

TEST_F(Exists, TellsOfTheFolderWhereTheNameIsEmpty) {
    EXPECT_FALSE(LockedFile::exists("", parent, ""));
    LockedFile::getParentPath(parent, "", true);
    EXPECT_TRUE(LockedFile::exists("", parent, ""));
}

TEST_F(Exists, MakesNothing) {
    LockedFile::exists(name, parent, "");

    EXPECT_NE(::access(folder().c_str(), F_OK), 0);
}

TEST_F(Exists, LooksIntoTheFolderOfTheTrustee) {
    tests::provideSharedFolder();
    const std::string group = tests::ownGroup();
    const LockedFile file = LockedFile::createAndTryLock(name, parent, group);

    EXPECT_TRUE(LockedFile::exists(name, parent, group));
    EXPECT_FALSE(LockedFile::exists(name, parent, ""));
}

TEST_F(IsLocked, IsTrueForAsLongAsTheObjectLives) {
    std::optional<LockedFile> file(LockedFile::tryLock(name, parent, ""));
    EXPECT_TRUE(LockedFile::isLocked(name, parent, ""));

    file.reset();
    EXPECT_FALSE(LockedFile::isLocked(name, parent, ""));
}

TEST_F(IsLocked, IsTrueForAFileThatAnotherProcessHolds) {
    tests::ForkedProcess holder([this](tests::Channel& test) {
        const LockedFile file = LockedFile::tryLock(name, parent, "");
        test.send("locked");
        test.receive();
    });
    holder.channel().receive();
    EXPECT_TRUE(LockedFile::isLocked(name, parent, ""));

    holder.channel().send("end");
    EXPECT_EQ(holder.waitForExit(), 0);
    EXPECT_FALSE(LockedFile::isLocked(name, parent, ""));
}

TEST_F(IsLocked, IsTrueForAFileThatWasLockedByAnyMeans) {
    LockedFile::tryLock(name, parent, "");
    const foundation::os::FileDescriptor file = tests::openFile(path());
    ASSERT_EQ(::flock(file.get(), LOCK_EX | LOCK_NB), 0);

    EXPECT_TRUE(LockedFile::isLocked(name, parent, ""));
}

TEST_F(IsLocked, IsTrueForAMissingFile) {
    const auto ask = [this] { EXPECT_TRUE(LockedFile::isLocked(name, parent, "")); };

    tests::expectLogged(ask, {});
    LockedFile::getParentPath(parent, "", true);
    tests::expectLogged(ask, {});
}

TEST_F(IsLocked, IsFalseForAnEmptyName) {
    EXPECT_FALSE(LockedFile::isLocked("", parent, ""));
    LockedFile::getParentPath(parent, "", true);
    EXPECT_FALSE(LockedFile::isLocked("", parent, ""));
}

TEST_F(IsLocked, IsFalseForAFileThatCannotBeOpened) {
    LockedFile::getParentPath(parent, "", true);
    tests::makeFile(path(), 0400);

    tests::expectLogged(
        [this] {
            EXPECT_FALSE(LockedFile::isLocked(tooLong, parent, ""));
            EXPECT_FALSE(LockedFile::isLocked(name + "/below", parent, ""));
        },
        {});
}

TEST_F(IsLocked, LeavesFileAndLockAlone) {
    std::optional<LockedFile> file(LockedFile::tryLock(name, parent, ""));
    const auto before = identityAt(path());
    LockedFile::isLocked(name, parent, "");
    EXPECT_TRUE(tests::isHeld(path()));

    file.reset();
    const std::size_t descriptors = tests::countDescriptors();
    tests::expectLogged([this] { LockedFile::isLocked(name, parent, ""); }, {});
    EXPECT_FALSE(tests::isHeld(path()));
    EXPECT_EQ(identityAt(path()), before);
    EXPECT_EQ(tests::countDescriptors(), descriptors);
}

TEST_F(IsLocked, MakesNothing) {
    LockedFile::isLocked(name, parent, "");

    EXPECT_NE(::access(folder().c_str(), F_OK), 0);
}

TEST_F(Destruct, RemovesTheFileLockedOrNot) {
    LockedFile::tryLock(name, parent, "");
    LockedFile::destruct(name, parent, "");
    EXPECT_EQ(tests::namesIn(folder()), Names{});

    const LockedFile file = LockedFile::createAndTryLock(name, parent, "");
    LockedFile::destruct(name, parent, "");
    EXPECT_EQ(tests::namesIn(folder()), Names{});
}

TEST_F(Destruct, TakesAMissingFileForSuccess) {
    tests::expectLogged([this] { LockedFile::destruct(name, parent, ""); }, {});

    LockedFile::getParentPath(parent, "", true);
    tests::expectLogged([this] { LockedFile::destruct(name, parent, ""); }, {});
}

TEST_F(Destruct, RemovesNothingWhereTheNameIsEmpty) {
    LockedFile::getParentPath(parent, "", true);

    tests::expectLogged([this] { LockedFile::destruct("", parent, ""); }, {});

    EXPECT_TRUE(S_ISDIR(tests::statusOf(folder()).st_mode));
}

TEST_F(Destruct, LogsAFolderInThePlaceOfTheFileAndLeavesIt) {
    LockedFile::getParentPath(parent, "", true);
    tests::makeFolder(path(), 0700);
    tests::makeFile(path() + "/inside", 0400);

    tests::expectLogged(
        [this] { LockedFile::destruct(name, parent, ""); },
        {"LockedFile::destruct(): Failed to delete file: <" + path() + ">. (Error 39)"});

    EXPECT_EQ(tests::namesIn(path()), Names{"inside"});
}

TEST_F(Destruct, LogsANameThatIsTooLong) {
    LockedFile::getParentPath(parent, "", true);

    tests::expectLogged([this] { LockedFile::destruct(tooLong, parent, ""); },
                        {"LockedFile::destruct(): Failed to delete file: <" + folder() + tooLong +
                         ">. (Error 36)"});
}

TEST_F(Destruct, LogsAFileThatMayNotBeRemoved) {
    if (!accounts::available()) {
        GTEST_SKIP() << accounts::whyNot;
    }
    EXPECT_EQ(tests::runInChild([this] {
                  accounts::become(accounts::anna);
                  LockedFile::tryLock(name, parent, "");
                  ASSERT_EQ(::chmod(folder().c_str(), 0500), 0);
                  tests::expectLogged([this] { LockedFile::destruct(name, parent, ""); },
                                      {"LockedFile::destruct(): Failed to delete file: <" + path() +
                                       ">. (Error 13)"});
                  EXPECT_EQ(tests::namesIn(folder()), Names{name});
              }),
              0);
}

TEST_F(Destruct, IsWhatTheObjectDoesAtItsEndAndWhatFailsThereStopsNothing) {
    std::optional<LockedFile> file(LockedFile::createAndTryLock(name, parent, ""));
    const foundation::os::FileDescriptor locked = tests::openFile(path());
    ASSERT_EQ(::unlink(path().c_str()), 0);
    tests::makeFolder(path(), 0700);
    tests::makeFile(path() + "/inside", 0400);

    tests::expectLogged([&] { file.reset(); }, {"LockedFile::destruct(): Failed to delete file: <" +
                                                path() + ">. (Error 39)"});

    EXPECT_EQ(::flock(locked.get(), LOCK_EX | LOCK_NB), 0);
}

TEST_F(Destruct, TakesAFileThatIsGoneAtTheEndOfTheObjectForSuccess) {
    std::optional<LockedFile> file(LockedFile::createAndTryLock(name, parent, ""));
    ASSERT_EQ(::unlink(path().c_str()), 0);

    tests::expectLogged([&] { file.reset(); }, {});
}

TEST_F(FilterNames, YieldsEverythingWithoutParts) {
    EXPECT_EQ(filtered({}), (Names{".", "..", ".hidden", "abc", "abd", "bcd", "xabcabcy"}));
    EXPECT_EQ(filtered({"", ""}), filtered({}));
}

TEST_F(FilterNames, YieldsNamesThatContainEveryPart) {
    EXPECT_EQ(filtered({"ab"}), (Names{"abc", "abd", "xabcabcy"}));
    EXPECT_EQ(filtered({"c", "ab"}), (Names{"abc", "xabcabcy"}));
    EXPECT_EQ(filtered({"ca", "bc"}), Names{"xabcabcy"});
    EXPECT_EQ(filtered({"."}), (Names{".", "..", ".hidden"}));
    EXPECT_EQ(filtered({"AB"}), Names{});
    EXPECT_EQ(filtered({"abc", "abd"}), Names{});
}

TEST_F(FilterNames, YieldsThemInTheOrderOfTheFolder) {
    for (int i = 0; i < 300; ++i) {
        tests::makeFile(folder() + std::to_string(i * 7919 % 1000), 0400);
    }
    foundation::os::DirectoryStream stream(folder());
    Names expected;
    while (const char* const entry = stream.next()) {
        expected.emplace_back(entry);
    }
    ASSERT_FALSE(std::is_sorted(expected.begin(), expected.end()));

    EXPECT_EQ(LockedFile::filterNames({}, parent, ""), expected);
}

TEST_F(FilterNames, YieldsHeldFilesToo) {
    const LockedFile file = LockedFile::createAndTryLock(name, parent, "");

    EXPECT_EQ(filtered({"file"}), Names{name});
}

TEST_F(FilterNames, KeepsNothingOpen) {
    const std::size_t descriptors = tests::countDescriptors();
    LockedFile::filterNames({}, parent, "");

    EXPECT_EQ(tests::countDescriptors(), descriptors);
}

TEST_F(FilterNamesElsewhere, YieldNothingWhereTheFolderIsMissing) {
    tests::expectLogged([this] { EXPECT_EQ(LockedFile::filterNames({}, parent, ""), Names{}); },
                        {});

    EXPECT_NE(::access(folder().c_str(), F_OK), 0);
}

TEST_F(FilterNamesElsewhere, YieldNothingWhereTheFolderOfTheTrusteeIsMissing) {
    tests::provideSharedFolder();

    EXPECT_EQ(LockedFile::filterNames({}, parent, tests::ownGroup()), Names{});
}

TEST_F(FilterNamesElsewhere, YieldWhatIsInTheFolderOfTheTrustee) {
    tests::provideSharedFolder();
    const LockedFile shared = LockedFile::createAndTryLock("shared", parent, tests::ownGroup());
    const LockedFile own = LockedFile::createAndTryLock("own", parent, "");

    EXPECT_EQ(LockedFile::filterNames({"s"}, parent, tests::ownGroup()), Names{"shared"});
    EXPECT_EQ(LockedFile::filterNames({"o"}, parent, ""), Names{"own"});
}

TEST_F(FilterNamesElsewhere, ReportAFileInThePlaceOfTheFolder) {
    LockedFile::getParentPath(parent, "", true);
    tests::makeFile(folder() + "inside", 0400);

    tests::expectReported<std::runtime_error>(
        [this] { LockedFile::filterNames({}, parent + "/inside", ""); }, inconsistency,
        "LockedFile::filterNames(): Failed to open parent folder. (Error 20)");
}

TEST_F(FilterNamesElsewhere, ReportAFolderThatMayNotBeRead) {
    if (!accounts::available()) {
        GTEST_SKIP() << accounts::whyNot;
    }
    EXPECT_EQ(tests::runInChild([this] {
                  accounts::become(accounts::anna);
                  LockedFile::tryLock(name, parent, "");
                  ASSERT_EQ(::chmod(folder().c_str(), 0300), 0);
                  tests::expectReported<std::runtime_error>(
                      [this] { LockedFile::filterNames({}, parent, ""); }, inconsistency,
                      "LockedFile::filterNames(): Failed to open parent folder. (Error 13)");
                  EXPECT_TRUE(LockedFile::exists(name, parent, ""));
              }),
              0);
}
