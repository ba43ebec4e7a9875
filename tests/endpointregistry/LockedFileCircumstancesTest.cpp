#include "endpointregistry/LockedFile.h"

#include "tests/endpointregistry/FoldersTools.h"
#include "tests/endpointregistry/LockedFileTools.h"
#include "tests/support/ForkedProcess.h"
#include "tests/support/TestAccounts.h"

#include <cerrno>
#include <gtest/gtest.h>
#include <optional>
#include <sched.h>
#include <string>
#include <sys/mount.h>
#include <sys/stat.h>
#include <system_error>
#include <vector>

using agent::spf::endpointregistry::LockedFile;
namespace accounts = tests::accounts;

namespace {

using Names = std::vector<std::string>;

void hideProc() {
    if (::unshare(CLONE_NEWNS) != 0 || ::mount("tmpfs", "/proc", "tmpfs", 0, nullptr) != 0) {
        throw std::system_error(errno, std::generic_category(), "/proc");
    }
}

class LockedFileInOddCircumstances : public tests::LockedFileTest {
protected:
    void SetUp() override {
        if (!accounts::available()) {
            GTEST_SKIP() << accounts::whyNot;
        }
        tests::provideSharedFolder();
    }

    /// Expects the whole life of files, private and shared, to be what it is everywhere.
    void expectOrdinaryLife(const std::string& suffix = {}) const {
        const std::string group = tests::ownGroup();
        expectOrdinaryLife(parent + suffix, "", 0400);
        expectOrdinaryLife(parent + suffix, group, 0470);
    }

private:
    static void expectOrdinaryLife(const std::string& parent, const std::string& trustee,
                                   mode_t mode) {
        const std::string folder = LockedFile::getParentPath(parent, trustee, true);
        std::optional<LockedFile> created(LockedFile::createAndTryLock("new", parent, trustee));
        std::optional<LockedFile> tried(LockedFile::tryLock("tried", parent, trustee));
        std::optional<LockedFile> got(LockedFile::getLock("waited", parent, trustee));
        EXPECT_TRUE(created->isLocked());
        EXPECT_TRUE(tried->isLocked());
        EXPECT_TRUE(got->isLocked());
        EXPECT_FALSE(LockedFile::tryLock("new", parent, trustee).isLocked());
        EXPECT_FALSE(LockedFile::createAndTryLock("tried", parent, trustee).isLocked());
        EXPECT_EQ(tests::namesIn(folder), (Names{"new", "tried", "waited"}));
        for (const std::string& name : tests::namesIn(folder)) {
            EXPECT_EQ(tests::modeOf(folder + name), mode);
            EXPECT_TRUE(LockedFile::isLocked(name, parent, trustee));
        }
        EXPECT_EQ(created->getTrustee(), trustee);

        created.reset();
        tried.reset();
        got.reset();
        EXPECT_EQ(tests::namesIn(folder), (Names{"tried", "waited"}));
        EXPECT_FALSE(LockedFile::isLocked("tried", parent, trustee));
        EXPECT_TRUE(LockedFile::tryLock("tried", parent, trustee).isLocked());
    }
};

} // namespace

TEST_F(LockedFileInOddCircumstances, LivesAsEverWithoutProc) {
    EXPECT_EQ(tests::runInChild([this] {
                  hideProc();
                  expectOrdinaryLife();
              }),
              0);
}

TEST_F(LockedFileInOddCircumstances, LivesAsEverWhereTheProcessSwitchedItsUser) {
    EXPECT_EQ(tests::runInChild([this] {
                  accounts::become(accounts::anna);
                  expectOrdinaryLife();
              }),
              0);
}

TEST_F(LockedFileInOddCircumstances, LivesAsEverWhereTheProcessSwitchedItsUserAndHasNoProc) {
    EXPECT_EQ(tests::runInChild([this] {
                  hideProc();
                  accounts::become(accounts::anna);
                  expectOrdinaryLife();
              }),
              0);
}

TEST_F(LockedFileInOddCircumstances, BelongsToTheUserThatTheProcessBecame) {
    const LockedFile own = LockedFile::tryLock(name, parent, "");
    EXPECT_EQ(tests::runInChild([this] {
                  accounts::become(accounts::anna);
                  const LockedFile file = LockedFile::tryLock(name, parent, "");
                  EXPECT_TRUE(file.isLocked());
                  EXPECT_EQ(tests::statusOf(path()).st_uid, accounts::userId(accounts::anna));
              }),
              0);
    EXPECT_TRUE(own.isLocked());
}

TEST_F(LockedFileInOddCircumstances, LivesAsEverWhateverTheUmask) {
    for (const mode_t mask : {0000U, 0077U}) {
        for (const char* const user : {"anna", "root"}) {
            EXPECT_EQ(tests::runInChild([&] {
                          if (std::string("root") != user) {
                              accounts::become(user);
                          }
                          const tests::Umask umask(mask);
                          expectOrdinaryLife(user + std::to_string(mask));
                      }),
                      0)
                << user << " " << mask;
        }
    }
}
