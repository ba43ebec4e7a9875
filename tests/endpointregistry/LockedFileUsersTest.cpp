#include "endpointregistry/LockedFile.h"

#include "foundation/os/FileIdentity.h"
#include "tests/endpointregistry/FoldersTools.h"
#include "tests/endpointregistry/LockedFileTools.h"
#include "tests/endpointregistry/LoggersReportedFailure.h"
#include "tests/support/ForkedProcess.h"
#include "tests/support/TestAccounts.h"

#include <cerrno>
#include <functional>
#include <gtest/gtest.h>
#include <stdexcept>
#include <string>
#include <sys/file.h>
#include <sys/stat.h>
#include <system_error>
#include <unistd.h>
#include <vector>

using agent::spf::endpointregistry::LockedFile;
using foundation::os::identityAt;
namespace accounts = tests::accounts;

namespace {

using Names = std::vector<std::string>;

const std::string folderInconsistency = "Endpoint Registry Error: File system inconsistency";
const std::string fileInconsistency = "System Error: File system inconsistency";

std::string notHandedOver(const std::string& path) {
    return "Utils::setTrustee(): Failed to change the group of: <" + path +
           "> to: <friends>. (Error 1)";
}

/// Runs the body in a child as that user, and expects that all went well there.
void as(const std::string& user, const std::function<void()>& body) {
    EXPECT_EQ(tests::runInChild([&] {
                  accounts::become(user);
                  body();
              }),
              0)
        << user;
}

void giveTo(const std::string& path, const std::string& user, const std::string& group) {
    if (::chown(path.c_str(), accounts::userId(user), accounts::groupId(group)) != 0) {
        throw std::system_error(errno, std::generic_category(), path);
    }
}

/// anna and ben are friends, carl is not.
class LockedFileAmongUsers : public tests::LockedFileTest {
protected:
    void SetUp() override {
        if (!accounts::available()) {
            GTEST_SKIP() << accounts::whyNot;
        }
        tests::provideSharedFolder();
    }

    /// Runs the body while anna holds the file in a folder of friends.
    void whileAnnaHolds(const std::function<void()>& body) {
        tests::ForkedProcess anna([this](tests::Channel& test) {
            accounts::become(accounts::anna);
            const LockedFile file = LockedFile::createAndTryLock(name, parent, accounts::friends);
            test.send(file.isLocked() ? "locked" : "not locked");
            test.receive();
        });
        ASSERT_EQ(anna.channel().receive(), "locked");
        body();
        anna.channel().send("end");
        EXPECT_EQ(anna.waitForExit(), 0);
    }

    /// Leaves a stale file of anna's in a folder of friends that belongs to ben.
    void plantAnnasFileInBensFolder() {
        as(accounts::ben, [this] { LockedFile::getParentPath(parent, accounts::friends, true); });
        tests::makeFile(shared + name, 0470);
        giveTo(shared + name, accounts::anna, accounts::friends);
    }

    const std::string shared = tests::sharedFolder(parent, accounts::friends);
};

} // namespace

TEST_F(LockedFileAmongUsers, IsSeenByTheMembersOfTheTrustee) {
    whileAnnaHolds([this] {
        as(accounts::ben, [this] {
            EXPECT_TRUE(LockedFile::exists(name, parent, accounts::friends));
            EXPECT_TRUE(LockedFile::isLocked(name, parent, accounts::friends));
            EXPECT_EQ(LockedFile::filterNames({"f"}, parent, accounts::friends), Names{name});
        });
    });
}

TEST_F(LockedFileAmongUsers, IsSeenAsStaleByTheMembersOfTheTrustee) {
    as(accounts::anna, [this] { LockedFile::tryLock(name, parent, accounts::friends); });

    as(accounts::ben,
       [this] { EXPECT_FALSE(LockedFile::isLocked(name, parent, accounts::friends)); });
}

TEST_F(LockedFileAmongUsers, MayBeRemovedByTheMembersOfTheTrustee) {
    as(accounts::anna, [this] { LockedFile::tryLock(name, parent, accounts::friends); });

    as(accounts::ben, [this] {
        tests::expectLogged([this] { LockedFile::destruct(name, parent, accounts::friends); }, {});
        EXPECT_FALSE(LockedFile::exists(name, parent, accounts::friends));
    });
    EXPECT_EQ(tests::namesIn(shared), Names{});
}

TEST_F(LockedFileAmongUsers, IsHiddenFromAllOthers) {
    whileAnnaHolds([this] {
        as(accounts::carl, [this] {
            EXPECT_FALSE(LockedFile::exists(name, parent, accounts::friends));
            EXPECT_FALSE(LockedFile::isLocked(name, parent, accounts::friends));
            tests::expectReported<std::runtime_error>(
                [this] { LockedFile::filterNames({}, parent, accounts::friends); },
                fileInconsistency,
                "LockedFile::filterNames(): Failed to open parent folder. (Error 13)");
            tests::expectLogged([this] { LockedFile::destruct(name, parent, accounts::friends); },
                                {"LockedFile::destruct(): Failed to delete file: <" + shared +
                                 name + ">. (Error 13)"});
        });
        EXPECT_EQ(tests::namesIn(shared), Names{name});
    });
}

TEST_F(LockedFileAmongUsers, CannotBeMadeInAFolderOfTheTrusteeThatAnotherOwns) {
    as(accounts::anna, [this] { LockedFile::getParentPath(parent, accounts::friends, true); });

    as(accounts::ben, [this] {
        EXPECT_EQ(LockedFile::getParentPath(parent, accounts::friends, false), shared);
        tests::expectReported<std::runtime_error>(
            [this] { LockedFile::getParentPath(parent, accounts::friends, true); },
            folderInconsistency, notHandedOver(shared));
        for (const auto factory :
             {LockedFile::createAndTryLock, LockedFile::tryLock, LockedFile::getLock}) {
            tests::expectReported<std::runtime_error>(
                [&] { factory(name, parent, accounts::friends); }, folderInconsistency,
                notHandedOver(shared));
        }
    });
    EXPECT_EQ(tests::namesIn(shared), Names{});
}

TEST_F(LockedFileAmongUsers, OfAnotherIsLockedAndLetGoWhereItCannotBeHandedOver) {
    plantAnnasFileInBensFolder();
    const auto before = identityAt(shared + name);

    as(accounts::ben, [&] {
        for (const auto factory : {LockedFile::tryLock, LockedFile::getLock}) {
            const std::size_t descriptors = tests::countDescriptors();
            EXPECT_THROW(factory(name, parent, accounts::friends), std::runtime_error);
            EXPECT_EQ(tests::countDescriptors(), descriptors);
            tests::expectReported<std::runtime_error>(
                [&] { factory(name, parent, accounts::friends); }, folderInconsistency,
                notHandedOver(shared + name));
            EXPECT_FALSE(tests::isHeld(shared + name));
            EXPECT_FALSE(LockedFile::isLocked(name, parent, accounts::friends));
        }
    });
    EXPECT_EQ(identityAt(shared + name), before);
    EXPECT_EQ(tests::statusOf(shared + name).st_uid, accounts::userId(accounts::anna));
}

TEST_F(LockedFileAmongUsers, OfAnotherThatIsHeldIsNotLockedAndNothingIsReported) {
    plantAnnasFileInBensFolder();
    const foundation::os::FileDescriptor annas = tests::openFile(shared + name);
    ASSERT_EQ(::flock(annas.get(), LOCK_EX | LOCK_NB), 0);

    as(accounts::ben, [this] {
        tests::expectLogged(
            [this] {
                const LockedFile file = LockedFile::tryLock(name, parent, accounts::friends);
                EXPECT_FALSE(file.isLocked());
                EXPECT_EQ(file.getLockError(), EWOULDBLOCK);
            },
            {});
    });
}

TEST_F(LockedFileAmongUsers, OfAnotherIsTakenForTheNameByExclusiveCreation) {
    plantAnnasFileInBensFolder();

    as(accounts::ben, [this] {
        tests::expectLogged(
            [this] {
                const LockedFile file =
                    LockedFile::createAndTryLock(name, parent, accounts::friends);
                EXPECT_FALSE(file.isLocked());
                EXPECT_EQ(file.getLockError(), EEXIST);
            },
            {});
    });
    EXPECT_EQ(tests::namesIn(shared), Names{name});
}

TEST_F(LockedFileAmongUsers, ThatMayNotBeReadIsReportedByWaitingAlone) {
    as(accounts::ben, [this] { LockedFile::getParentPath(parent, "", true); });
    const std::string planted = "/dev/shm/Corvantis-" +
                                std::to_string(accounts::userId(accounts::ben)) + "/" + parent +
                                "/" + name;
    tests::makeFile(planted, 0400);

    as(accounts::ben, [&] {
        const LockedFile tried = LockedFile::tryLock(name, parent, "");
        EXPECT_FALSE(tried.isLocked());
        EXPECT_EQ(tried.getLockError(), EACCES);
        EXPECT_EQ(LockedFile::createAndTryLock(name, parent, "").getLockError(), EEXIST);
        EXPECT_FALSE(LockedFile::isLocked(name, parent, ""));
        tests::expectReported<std::runtime_error>(
            [this] { LockedFile::getLock(name, parent, ""); }, fileInconsistency,
            "LockedFile::lockFile(): Failed to create file: <" + planted + ">. (Error 13)");
    });
    EXPECT_EQ(tests::statusOf(planted).st_uid, 0U);
}

TEST_F(LockedFileAmongUsers, MeetsNoPrivateFileOfAnotherUser) {
    const LockedFile roots = LockedFile::tryLock(name, parent, "");
    for (const std::string& user : {accounts::anna, accounts::ben}) {
        as(user, [this] {
            EXPECT_FALSE(LockedFile::exists(name, parent, ""));
            EXPECT_TRUE(LockedFile::createAndTryLock(name, parent, "").isLocked());
        });
    }
    EXPECT_TRUE(tests::isHeld(path()));
}

TEST_F(LockedFileAmongUsers, OfSeveralTrusteesSharesTheUpperFolders) {
    as(accounts::anna, [this] { LockedFile::tryLock(name, parent, accounts::anna); });
    as(accounts::ben, [this] { LockedFile::tryLock(name, parent, accounts::friends); });
    as(accounts::carl, [this] { LockedFile::tryLock(name, parent, accounts::carl); });

    EXPECT_EQ(tests::statusOf("/home/Shared/Corvantis/" + parent).st_uid,
              accounts::userId(accounts::anna));
    for (const std::string& trustee : {accounts::anna, accounts::friends, accounts::carl}) {
        EXPECT_EQ(tests::namesIn(tests::sharedFolder(parent, trustee)), Names{name}) << trustee;
    }
}

TEST_F(LockedFileAmongUsers, IsNotMadeForATrusteeThatItsOwnerIsNoMemberOf) {
    as(accounts::carl, [this] {
        tests::expectReported<std::runtime_error>(
            [this] { LockedFile::tryLock(name, parent, accounts::friends); }, folderInconsistency,
            notHandedOver(shared));
    });
    EXPECT_EQ(tests::namesIn(shared), Names{});
}

TEST_F(LockedFileAmongUsers, IsRefusedInABaseFolderThatAnotherUserPlanted) {
    const std::string base =
        "/dev/shm/Corvantis-" + std::to_string(accounts::userId(accounts::carl));
    ASSERT_NE(::access(base.c_str(), F_OK), 0);
    tests::makeFolder(base, 0777);

    as(accounts::carl, [this] {
        EXPECT_THROW(LockedFile::tryLock(name, parent, ""), std::runtime_error);
        EXPECT_THROW(LockedFile::exists(name, parent, ""), std::runtime_error);
        EXPECT_THROW(LockedFile::isLocked(name, parent, ""), std::runtime_error);
        EXPECT_THROW(LockedFile::filterNames({}, parent, ""), std::runtime_error);
        LockedFile::destruct(name, parent, "");
    });
    EXPECT_EQ(tests::namesIn(base), Names{});
    ASSERT_EQ(::rmdir(base.c_str()), 0);
}
