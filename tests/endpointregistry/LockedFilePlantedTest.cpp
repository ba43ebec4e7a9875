#include "endpointregistry/LockedFile.h"

#include "tests/endpointregistry/FoldersTools.h"
#include "tests/endpointregistry/LockedFileTools.h"
#include "tests/endpointregistry/LoggersReportedFailure.h"
#include "tests/support/ForkedProcess.h"

#include <cerrno>
#include <gtest/gtest.h>
#include <stdexcept>
#include <string>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

using agent::spf::endpointregistry::LockedFile;

namespace {

/// Something else than a file of the registry stands under the file's name.
class PlantedLockedFile : public tests::LockedFileTest {
protected:
    void SetUp() override { LockedFile::getParentPath(parent, "", true); }

    void plantLink() { ASSERT_EQ(::symlink(target.c_str(), path().c_str()), 0); }
    void plantPipe() { ASSERT_EQ(::mkfifo(path().c_str(), 0600), 0); }
    void plantFolder() { tests::makeFolder(path(), 0700); }

    /// Runs every way to lock the name in a child, which must come to an end.
    void expectNoLock(int error) {
        EXPECT_EQ(tests::runInChild([&] {
                      const LockedFile tried = LockedFile::tryLock(name, parent, "");
                      EXPECT_FALSE(tried.isLocked());
                      EXPECT_EQ(tried.getLockError(), error);
                      const LockedFile created = LockedFile::createAndTryLock(name, parent, "");
                      EXPECT_FALSE(created.isLocked());
                      EXPECT_EQ(created.getLockError(), EEXIST);
                      tests::expectReported<std::runtime_error>(
                          [&] { LockedFile::getLock(name, parent, ""); },
                          "System Error: File system inconsistency",
                          "LockedFile::lockFile(): Failed to create file: <" + path() +
                              ">. (Error " + std::to_string(error) + ")");
                  }),
                  0);
    }

    void expectNotLocked() {
        EXPECT_EQ(tests::runInChild([&] { EXPECT_FALSE(LockedFile::isLocked(name, parent, "")); }),
                  0);
    }

    const tests::ScratchFolder elsewhere;
    const std::string target = elsewhere / "target";
};

} // namespace

TEST_F(PlantedLockedFile, ThatIsALinkToNowhereIsNotFollowed) {
    plantLink();

    expectNoLock(ELOOP);
    expectNotLocked();

    EXPECT_NE(::access(target.c_str(), F_OK), 0);
    EXPECT_TRUE(S_ISLNK(tests::statusOf(path()).st_mode));
}

TEST_F(PlantedLockedFile, ThatIsALinkToAFileIsNotFollowed) {
    tests::makeFile(target, 0600);
    plantLink();

    expectNoLock(ELOOP);
    expectNotLocked();

    EXPECT_EQ(tests::modeOf(target), 0600U);
    EXPECT_TRUE(S_ISLNK(tests::statusOf(path()).st_mode));
}

TEST_F(PlantedLockedFile, ThatIsALinkToALockedFileIsNotFollowed) {
    tests::makeFile(target, 0600);
    plantLink();
    const foundation::os::FileDescriptor held = tests::openFile(target);
    ASSERT_EQ(::flock(held.get(), LOCK_EX | LOCK_NB), 0);

    expectNoLock(ELOOP);
    expectNotLocked();
}

TEST_F(PlantedLockedFile, ThatIsALinkIsRemovedInPlaceOfItsTarget) {
    tests::makeFile(target, 0600);
    plantLink();

    LockedFile::destruct(name, parent, "");

    EXPECT_NE(::access(path().c_str(), F_OK), 0);
    EXPECT_EQ(::access(target.c_str(), F_OK), 0);
}

TEST_F(PlantedLockedFile, ThatIsALinkHandsNothingToATrustee) {
    tests::provideSharedFolder();
    const std::string group = tests::ownGroup();
    const std::string planted = LockedFile::getParentPath(parent, group, true) + name;
    tests::makeFile(target, 0600);
    ASSERT_EQ(::symlink(target.c_str(), planted.c_str()), 0);

    EXPECT_FALSE(LockedFile::tryLock(name, parent, group).isLocked());

    EXPECT_EQ(tests::modeOf(target), 0600U);
}

TEST_F(PlantedLockedFile, ThatIsAPipeKeepsNobodyWaiting) {
    plantPipe();

    EXPECT_EQ(tests::runInChild([this] {
                  LockedFile::tryLock(name, parent, "");
                  LockedFile::isLocked(name, parent, "");
                  EXPECT_FALSE(LockedFile::createAndTryLock(name, parent, "").isLocked());
              }),
              0);
    EXPECT_TRUE(S_ISFIFO(tests::statusOf(path()).st_mode));
}

TEST_F(PlantedLockedFile, ThatIsAPipeKeepsNobodyWaitingForItsLock) {
    plantPipe();

    EXPECT_EQ(tests::runInChild([this] {
                  try {
                      LockedFile::getLock(name, parent, "");
                  } catch (const std::runtime_error&) {
                      // One way to say that this is no file of the registry.
                  }
              }),
              0);
    EXPECT_TRUE(S_ISFIFO(tests::statusOf(path()).st_mode));
}

TEST_F(PlantedLockedFile, ThatIsAFolderIsNotLocked) {
    plantFolder();

    expectNoLock(EISDIR);
    expectNotLocked();

    EXPECT_TRUE(S_ISDIR(tests::statusOf(path()).st_mode));
}

TEST_F(PlantedLockedFile, ThatIsAHardLinkToAFileElsewhereKeepsThatFile) {
    tests::makeFile(target, 0600);
    ASSERT_EQ(::link(target.c_str(), path().c_str()), 0);

    LockedFile::tryLock(name, parent, "").markForDeletion();

    EXPECT_EQ(tests::statusOf(target).st_nlink, 1U);
    EXPECT_EQ(tests::modeOf(target), 0600U);
}
