#include "endpointregistry/LockedFile.h"

#include "foundation/os/FileDescriptor.h"
#include "foundation/os/FileIdentity.h"
#include "tests/endpointregistry/FoldersTools.h"
#include "tests/endpointregistry/LockedFileTools.h"
#include "tests/support/ForkedProcess.h"

#include <gtest/gtest.h>
#include <optional>
#include <string>
#include <sys/prctl.h>
#include <unistd.h>

using agent::spf::endpointregistry::LockedFile;
using foundation::os::identityAt;
using foundation::os::identityOf;

namespace {

/// Whether the descriptor is open on the file of that path.
bool isOn(int descriptor, const std::string& path) {
    const auto identity = identityOf(descriptor);
    return identity && identity == identityAt(path);
}

} // namespace

using ForkedLockedFile = tests::LockedFileTest;
using ExecutedProgram = tests::LockedFileTest;
using DescriptorZero = tests::LockedFileTest;

TEST_F(ForkedLockedFile, IsNeitherUnlockedNorRemovedByTheChildsCopy) {
    std::optional<LockedFile> file(LockedFile::createAndTryLock(name, parent, ""));

    EXPECT_EQ(tests::runInChild([&] { file.reset(); }), 0);

    EXPECT_TRUE(tests::isHeld(path()));
    EXPECT_TRUE(LockedFile::exists(name, parent, ""));
    EXPECT_TRUE(file->isLocked());
    file.reset();
    EXPECT_FALSE(LockedFile::exists(name, parent, ""));
}

TEST_F(ForkedLockedFile, IsNotRemovedByACopyThatTheChildMarksForDeletion) {
    std::optional<LockedFile> file(LockedFile::tryLock(name, parent, ""));

    EXPECT_EQ(tests::runInChild([&] {
                  file->markForDeletion();
                  file.reset();
              }),
              0);

    EXPECT_TRUE(tests::isHeld(path()));
}

TEST_F(ForkedLockedFile, IsLetGoByItsOwnerAlone) {
    std::optional<LockedFile> file(LockedFile::tryLock(name, parent, ""));
    tests::ForkedProcess child([&](tests::Channel& test) {
        test.send("begun");
        test.receive();
    });
    ASSERT_EQ(child.channel().receive(), "begun");

    file.reset();

    EXPECT_FALSE(tests::isHeld(path()));
    EXPECT_TRUE(LockedFile::tryLock(name, parent, "").isLocked());
    child.channel().send("end");
    EXPECT_EQ(child.waitForExit(), 0);
}

TEST_F(ForkedLockedFile, OutlivesItsOwnerForAsLongAsAChildHoldsACopy) {
    tests::ForkedProcess owner([&](tests::Channel& test) {
        const LockedFile file = LockedFile::createAndTryLock(name, parent, "");
        tests::ForkedProcess child([&](tests::Channel&) {
            ASSERT_EQ(::prctl(PR_SET_PDEATHSIG, 0), 0);
            test.send("begun");
            test.receive();
        });
        child.waitForExit();
    });
    ASSERT_EQ(owner.channel().receive(), "begun");

    owner.kill();
    EXPECT_TRUE(tests::isHeld(path()));

    owner.channel().send("end");
    tests::waitUntil([this] { return !tests::isHeld(path()); }, "a lock that nobody holds");
    EXPECT_TRUE(LockedFile::exists(name, parent, ""));
}

TEST_F(ForkedLockedFile, IsNotMovedAwayFromTheParentByTheChild) {
    LockedFile file = LockedFile::createAndTryLock(name, parent, "");

    EXPECT_EQ(tests::runInChild([&] {
                  file = LockedFile::createAndTryLock("other", parent, "");
                  EXPECT_TRUE(file.isLocked());
              }),
              0);

    EXPECT_TRUE(tests::isHeld(path()));
}

TEST_F(ExecutedProgram, InheritsNoLock) {
    const LockedFile created = LockedFile::createAndTryLock("created", parent, "");
    const LockedFile tried = LockedFile::tryLock("tried", parent, "");
    const LockedFile got = LockedFile::getLock("got", parent, "");
    LockedFile::tryLock("stale", parent, "");
    const LockedFile stale = LockedFile::tryLock("stale", parent, "");
    const LockedFile busy = LockedFile::tryLock("created", parent, "");
    std::string inodes;
    for (const std::string& file : tests::namesIn(folder())) {
        inodes += " -e " + std::to_string(tests::statusOf(folder() + file).st_ino);
    }
    // Ends with 1 where grep finds none of them among the open files of the program.
    const std::string script = "for i in 0 1 2 3 4 5 6 7 8 9; do stat -L -c %i /dev/fd/$i; "
                               "done 2>/dev/null | grep -qxF" +
                               inodes;
    if (::access("/dev/fd/0", F_OK) != 0) {
        GTEST_SKIP() << "needs /proc";
    }
    tests::ForkedProcess program([&](tests::Channel&) {
        ::execl("/bin/sh", "sh", "-c", script.c_str(), nullptr);
        FAIL() << "no shell";
    });

    EXPECT_EQ(program.waitForExit(), 1);
}

TEST_F(DescriptorZero, IsKeptOpenAndLocked) {
    LockedFile::tryLock(name, parent, "");
    EXPECT_EQ(tests::runInChild([this] {
                  foundation::os::FileDescriptor(STDIN_FILENO).reset();
                  {
                      const LockedFile file = LockedFile::tryLock(name, parent, "");
                      EXPECT_TRUE(file.isLocked());
                      ASSERT_TRUE(isOn(STDIN_FILENO, path()));
                  }
                  EXPECT_TRUE(isOn(STDIN_FILENO, path()));
                  EXPECT_TRUE(LockedFile::isLocked(name, parent, ""));
              }),
              0);
    EXPECT_FALSE(LockedFile::isLocked(name, parent, ""));
}

TEST_F(DescriptorZero, IsNoReasonToKeepTheFile) {
    EXPECT_EQ(tests::runInChild([this] {
                  foundation::os::FileDescriptor(STDIN_FILENO).reset();
                  { LockedFile::tryLock(name, parent, "").markForDeletion(); }
                  EXPECT_FALSE(LockedFile::exists(name, parent, ""));
              }),
              0);
}
