#include "endpointregistry/LockedFile.h"

#include "foundation/os/FileIdentity.h"
#include "tests/endpointregistry/FoldersTools.h"
#include "tests/endpointregistry/LockedFileTools.h"
#include "tests/endpointregistry/LoggersReportedFailure.h"
#include "tests/support/ForkedProcess.h"

#include <cerrno>
#include <fstream>
#include <gtest/gtest.h>
#include <optional>
#include <string>
#include <sys/stat.h>
#include <unistd.h>
#include <utility>
#include <vector>

using agent::spf::endpointregistry::LockedFile;
using foundation::os::identityAt;

namespace {

using Names = std::vector<std::string>;

} // namespace

using CreateAndTryLock = tests::LockedFileTest;
using TryLock = tests::LockedFileTest;
using GetLock = tests::LockedFileTest;
using LockedFileFlags = tests::LockedFileTest;
using LockedFileMoves = tests::LockedFileTest;

TEST_F(CreateAndTryLock, MakesAnEmptyFileAndLocksIt) {
    const LockedFile file = LockedFile::createAndTryLock(name, parent, "");

    EXPECT_TRUE(file.isLocked());
    EXPECT_EQ(file.getLockError(), 0);
    EXPECT_TRUE(tests::isHeld(path()));
    EXPECT_TRUE(S_ISREG(tests::statusOf(path()).st_mode));
    EXPECT_EQ(tests::statusOf(path()).st_size, 0);
    EXPECT_EQ(tests::statusOf(path()).st_nlink, 1U);
    EXPECT_EQ(tests::namesIn(folder()), Names{name});
}

TEST_F(CreateAndTryLock, RemovesTheFileWithTheObject) {
    tests::expectLogged([&] { LockedFile::createAndTryLock(name, parent, ""); }, {});

    EXPECT_EQ(tests::namesIn(folder()), Names{});
}

TEST_F(CreateAndTryLock, IsNotLockedWhereAnotherHasTheFile) {
    const LockedFile holder = LockedFile::createAndTryLock(name, parent, "");
    const auto before = identityAt(path());
    {
        const LockedFile late = LockedFile::createAndTryLock(name, parent, "");
        EXPECT_FALSE(late.isLocked());
        EXPECT_EQ(late.getLockError(), EEXIST);
    }
    EXPECT_EQ(identityAt(path()), before);
    EXPECT_TRUE(tests::isHeld(path()));
    EXPECT_TRUE(holder.isLocked());
}

TEST_F(CreateAndTryLock, IsNotLockedWhereAStaleFileHasTheName) {
    LockedFile::tryLock(name, parent, "");
    const auto before = identityAt(path());
    {
        const LockedFile late = LockedFile::createAndTryLock(name, parent, "");
        EXPECT_FALSE(late.isLocked());
        EXPECT_EQ(late.getLockError(), EEXIST);
        EXPECT_FALSE(tests::isHeld(path()));
    }
    EXPECT_EQ(identityAt(path()), before);
}

TEST_F(CreateAndTryLock, WritesNoRecordWhereTheNameIsTaken) {
    const LockedFile holder = LockedFile::createAndTryLock(name, parent, "");

    tests::expectLogged([&] { LockedFile::createAndTryLock(name, parent, ""); }, {});
}

TEST_F(CreateAndTryLock, LeavesTheFileWhereMadePersistent) {
    LockedFile::createAndTryLock(name, parent, "").makePersistent();

    EXPECT_EQ(tests::namesIn(folder()), Names{name});
    EXPECT_FALSE(tests::isHeld(path()));
}

TEST_F(CreateAndTryLock, ObeysTheLastOfMakePersistentAndMarkForDeletion) {
    {
        LockedFile file = LockedFile::createAndTryLock(name, parent, "");
        file.makePersistent();
        file.markForDeletion();
    }
    EXPECT_EQ(tests::namesIn(folder()), Names{});
}

TEST_F(CreateAndTryLock, LeavesAFileThatWasPutInThePlaceOfItsOwn) {
    {
        const LockedFile robbed = LockedFile::createAndTryLock(name, parent, "");
        LockedFile::destruct(name, parent, "");
        LockedFile next = LockedFile::createAndTryLock(name, parent, "");
        ASSERT_TRUE(next.isLocked());
        next.makePersistent();
    }
    EXPECT_EQ(tests::namesIn(folder()), Names{name});
}

TEST_F(CreateAndTryLock, SucceedsAgainOnceTheObjectIsGone) {
    for (int round = 0; round < 10; ++round) {
        EXPECT_TRUE(LockedFile::createAndTryLock(name, parent, "").isLocked()) << round;
    }
}

TEST_F(CreateAndTryLock, TakesAnyFileName) {
    const Names odd{"with blank", "with\nline break",   "-rf", "...", "\xC3\xA4\xFF",
                    "*?[",        std::string(255, 'n')};
    for (const std::string& oddName : odd) {
        const LockedFile file = LockedFile::createAndTryLock(oddName, parent, "");
        EXPECT_TRUE(file.isLocked()) << oddName;
        EXPECT_EQ(tests::namesIn(folder()), Names{oddName});
    }
    EXPECT_EQ(tests::namesIn(folder()), Names{});
}

TEST_F(CreateAndTryLock, LocksEachNameAndEachParentByItself) {
    const LockedFile first = LockedFile::createAndTryLock(name, parent, "");
    const LockedFile otherName = LockedFile::createAndTryLock(name + "2", parent, "");
    const LockedFile otherParent = LockedFile::createAndTryLock(name, parent + "2", "");

    EXPECT_TRUE(first.isLocked());
    EXPECT_TRUE(otherName.isLocked());
    EXPECT_TRUE(otherParent.isLocked());
}

TEST_F(TryLock, MakesAMissingFileAndLocksIt) {
    const LockedFile file = LockedFile::tryLock(name, parent, "");

    EXPECT_TRUE(file.isLocked());
    EXPECT_EQ(file.getLockError(), 0);
    EXPECT_TRUE(tests::isHeld(path()));
    EXPECT_EQ(tests::namesIn(folder()), Names{name});
}

TEST_F(TryLock, LeavesTheFileAndFreesItsLock) {
    LockedFile::tryLock(name, parent, "");

    EXPECT_EQ(tests::namesIn(folder()), Names{name});
    EXPECT_FALSE(tests::isHeld(path()));
}

TEST_F(TryLock, TakesAStaleFileAsItIsAndLeavesItInPlace) {
    LockedFile::tryLock(name, parent, "");
    const auto before = identityAt(path());
    {
        const LockedFile file = LockedFile::tryLock(name, parent, "");
        EXPECT_TRUE(file.isLocked());
        EXPECT_TRUE(tests::isHeld(path()));
        EXPECT_EQ(identityAt(path()), before);
    }
    EXPECT_EQ(identityAt(path()), before);
    EXPECT_FALSE(tests::isHeld(path()));
}

TEST_F(TryLock, ChangesNeitherContentNorModeOfAStaleFile) {
    LockedFile::getParentPath(parent, "", true);
    std::ofstream(path()) << "content";
    ASSERT_EQ(::chmod(path().c_str(), 0640), 0);

    EXPECT_TRUE(LockedFile::tryLock(name, parent, "").isLocked());

    EXPECT_EQ(tests::statusOf(path()).st_size, 7);
    EXPECT_EQ(tests::modeOf(path()), 0640U);
}

TEST_F(TryLock, IsNotLockedWhereThisProcessHoldsTheLock) {
    const LockedFile holder = LockedFile::tryLock(name, parent, "");
    {
        const LockedFile late = LockedFile::tryLock(name, parent, "");
        EXPECT_FALSE(late.isLocked());
        EXPECT_EQ(late.getLockError(), EWOULDBLOCK);
    }
    EXPECT_TRUE(tests::isHeld(path()));
    EXPECT_TRUE(holder.isLocked());
}

TEST_F(TryLock, IsNotLockedWhereAnotherProcessHoldsTheLock) {
    tests::ForkedProcess holder([this](tests::Channel& test) {
        const LockedFile file = LockedFile::createAndTryLock(name, parent, "");
        test.send(file.isLocked() ? "locked" : "not locked");
        test.receive();
    });
    ASSERT_EQ(holder.channel().receive(), "locked");

    const LockedFile late = LockedFile::tryLock(name, parent, "");
    EXPECT_FALSE(late.isLocked());
    EXPECT_EQ(late.getLockError(), EWOULDBLOCK);

    holder.channel().send("end");
    EXPECT_EQ(holder.waitForExit(), 0);
    EXPECT_TRUE(LockedFile::tryLock(name, parent, "").isLocked());
}

TEST_F(TryLock, RemovesTheFileWhereMarkedForDeletion) {
    LockedFile::tryLock(name, parent, "").markForDeletion();

    EXPECT_EQ(tests::namesIn(folder()), Names{});
}

TEST_F(TryLock, RemovesAStaleFileWhereMarkedForDeletion) {
    LockedFile::tryLock(name, parent, "");

    LockedFile::tryLock(name, parent, "").markForDeletion();

    EXPECT_EQ(tests::namesIn(folder()), Names{});
}

TEST_F(TryLock, FindsTheLockFreeOnceItsHolderIsKilledAndTheFileInPlace) {
    tests::ForkedProcess holder([this](tests::Channel& test) {
        const LockedFile file = LockedFile::createAndTryLock(name, parent, "");
        test.send(file.isLocked() ? "locked" : "not locked");
        test.receive();
    });
    ASSERT_EQ(holder.channel().receive(), "locked");
    const auto before = identityAt(path());
    EXPECT_TRUE(LockedFile::isLocked(name, parent, ""));

    holder.kill();

    EXPECT_EQ(identityAt(path()), before);
    EXPECT_FALSE(LockedFile::isLocked(name, parent, ""));
    EXPECT_TRUE(LockedFile::tryLock(name, parent, "").isLocked());
    EXPECT_EQ(identityAt(path()), before);
}

TEST_F(GetLock, MakesAMissingFileAndLocksIt) {
    const LockedFile file = LockedFile::getLock(name, parent, "");

    EXPECT_TRUE(file.isLocked());
    EXPECT_EQ(file.getLockError(), 0);
    EXPECT_TRUE(tests::isHeld(path()));
    EXPECT_EQ(tests::namesIn(folder()), Names{name});
}

TEST_F(GetLock, LeavesTheFileAndFreesItsLock) {
    LockedFile::getLock(name, parent, "");

    EXPECT_EQ(tests::namesIn(folder()), Names{name});
    EXPECT_FALSE(tests::isHeld(path()));
}

TEST_F(GetLock, TakesAStaleFileAsItIs) {
    LockedFile::getLock(name, parent, "");
    const auto before = identityAt(path());

    const LockedFile file = LockedFile::getLock(name, parent, "");

    EXPECT_TRUE(file.isLocked());
    EXPECT_EQ(identityAt(path()), before);
}

TEST_F(GetLock, RemovesTheFileWhereMarkedForDeletion) {
    LockedFile::getLock(name, parent, "").markForDeletion();

    EXPECT_EQ(tests::namesIn(folder()), Names{});
}

TEST_F(LockedFileFlags, WaitNoLongerThanForTheNameWhereTheFileMustBeNew) {
    const LockedFile holder(name, parent, "", true, true);
    EXPECT_TRUE(holder.isLocked());

    const LockedFile late(name, parent, "", true, true);
    EXPECT_FALSE(late.isLocked());
    EXPECT_EQ(late.getLockError(), EEXIST);
}

TEST_F(LockedFileFlags, RemoveWhatHadToBeNew) {
    { const LockedFile file(name, parent, "", true, true); }
    EXPECT_EQ(tests::namesIn(folder()), Names{});

    { const LockedFile file(name, parent, "", true, false); }
    EXPECT_EQ(tests::namesIn(folder()), Names{});
}

TEST_F(LockedFileFlags, LeaveWhatNeedNotBeNew) {
    { const LockedFile file(name, parent, "", false, true); }
    EXPECT_EQ(tests::namesIn(folder()), Names{name});

    { const LockedFile file(name, parent, "", false, false); }
    EXPECT_EQ(tests::namesIn(folder()), Names{name});
}

TEST_F(LockedFileMoves, HandTheFileOver) {
    std::optional<LockedFile> first(LockedFile::createAndTryLock(name, parent, ""));
    {
        const LockedFile second(std::move(*first));
        EXPECT_TRUE(second.isLocked());
        first.reset();
        EXPECT_TRUE(tests::isHeld(path()));
    }
    EXPECT_EQ(tests::namesIn(folder()), Names{});
}

TEST_F(LockedFileMoves, LetTheOldFileOfTheTargetGo) {
    LockedFile target = LockedFile::createAndTryLock("removed", parent, "");
    target = LockedFile::createAndTryLock(name, parent, "");
    EXPECT_TRUE(target.isLocked());
    EXPECT_EQ(tests::namesIn(folder()), Names{name});

    target.makePersistent();
    target = LockedFile::createAndTryLock("next", parent, "");
    EXPECT_FALSE(tests::isHeld(path()));
    EXPECT_TRUE(tests::isHeld(folder() + "next"));
}

TEST_F(LockedFileMoves, DoNotHandTheOldFileOfTheTargetToTheSource) {
    LockedFile target = LockedFile::createAndTryLock("removed", parent, "");
    LockedFile source = LockedFile::createAndTryLock(name, parent, "");

    target = std::move(source);

    EXPECT_EQ(tests::namesIn(folder()), Names{name});
    EXPECT_TRUE(tests::isHeld(path()));
}

TEST_F(LockedFileMoves, KeepWhatTheSourceWasMarkedFor) {
    {
        LockedFile source = LockedFile::tryLock(name, parent, "");
        source.markForDeletion();
        const LockedFile target(std::move(source));
        EXPECT_EQ(tests::namesIn(folder()), Names{name});
    }
    EXPECT_EQ(tests::namesIn(folder()), Names{});
}

TEST_F(LockedFileMoves, LeaveASourceThatMayBeAssignedTo) {
    LockedFile source = LockedFile::createAndTryLock("first", parent, "");
    const LockedFile target(std::move(source));

    source = LockedFile::createAndTryLock(name, parent, "");

    EXPECT_TRUE(source.isLocked());
    EXPECT_TRUE(target.isLocked());
    EXPECT_EQ(tests::namesIn(folder()), (Names{name, "first"}));
}

TEST_F(LockedFileMoves, HandOverThatThereIsNoLock) {
    const LockedFile holder = LockedFile::tryLock(name, parent, "");
    LockedFile source = LockedFile::tryLock(name, parent, "");

    const LockedFile target(std::move(source));

    EXPECT_FALSE(target.isLocked());
    EXPECT_EQ(target.getLockError(), EWOULDBLOCK);
}
