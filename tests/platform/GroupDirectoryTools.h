#pragma once

#include "foundation/os/GroupDirectory.h"
#include "tests/support/ForkedProcess.h"
#include "tests/support/TestAccounts.h"

#include <cerrno>
#include <filesystem>
#include <functional>
#include <grp.h>
#include <gtest/gtest.h>
#include <optional>
#include <string>
#include <sys/stat.h>
#include <system_error>
#include <unistd.h>

namespace tests {

/// Directories of the friends', three levels below a base that is open to all.
class GroupDirectoryTest : public testing::Test {
protected:
    using Group = foundation::os::Group;
    using GroupDirectory = foundation::os::GroupDirectory;
    using GroupDirectoryError = foundation::os::GroupDirectoryError;

    void SetUp() override {
        if (!accounts::available()) {
            GTEST_SKIP() << accounts::whyNot;
        }
        makeDirectory(path.base, 0777);
        friends = accounts::groupId(accounts::friends);
    }
    void TearDown() override { std::filesystem::remove_all(path.base); }

    static void as(const std::string& user, const std::function<void()>& body) {
        EXPECT_EQ(runInChild([&] {
                      accounts::become(user);
                      body();
                  }),
                  0)
            << user;
    }

    /// Runs the body as a process of this user with these groups, whatever the database says.
    static void asProcess(uid_t user, gid_t effective, std::optional<gid_t> supplementary,
                          const std::function<void()>& body) {
        EXPECT_EQ(runInChild([&] {
                      const gid_t other = supplementary.value_or(0);
                      demand(::setgroups(supplementary ? 1 : 0, &other) == 0);
                      demand(::setgid(effective) == 0);
                      demand(::setuid(user) == 0);
                      body();
                  }),
                  0);
    }

    static void demand(bool isDone) {
        if (!isDone) {
            throw std::system_error(errno, std::generic_category());
        }
    }

    /// Makes a directory of exactly this mode.
    static void makeDirectory(const std::string& where, mode_t mode) {
        demand(::mkdir(where.c_str(), 0700) == 0);
        demand(::chmod(where.c_str(), mode) == 0);
    }

    /// The path of a level by its number: 0 is the base, 3 the group's own.
    std::string levelPath(std::size_t number) const {
        std::string level = path.base;
        for (std::size_t i = 0; i < number; ++i) {
            level += "/" + path.levels.at(i);
        }
        return level;
    }
    std::string own() const { return levelPath(path.levels.size()); }

    void makeLevelsAbove(gid_t group = 0, mode_t mode = 0777) const {
        for (const std::size_t level : {1U, 2U}) {
            makeDirectory(levelPath(level), 0777);
            demand(::chown(levelPath(level).c_str(), 0, group) == 0);
            demand(::chmod(levelPath(level).c_str(), mode) == 0);
        }
    }

    /// The group's directory, made by root for this user.
    void makeOwn(uid_t owner, gid_t group, mode_t mode) const {
        makeDirectory(own(), 0700);
        demand(::chown(own().c_str(), owner, group) == 0);
        demand(::chmod(own().c_str(), mode) == 0);
    }

    bool isUsable() const {
        try {
            return GroupDirectory::tryOpen(path, group()).has_value();
        } catch (const GroupDirectoryError&) {
            return false;
        }
    }

    /// Every member can use the directory, and comes to the one that stands there.
    void expectUsable() const {
        for (const std::string& member : {accounts::anna, accounts::ben, std::string("root")}) {
            as(member, [&] {
                struct stat status {};
                demand(::stat(own().c_str(), &status) == 0);
                const auto opened = GroupDirectory::tryOpen(path, group());
                ASSERT_TRUE(opened.has_value());
                EXPECT_EQ(opened->identity(), foundation::os::FileIdentity(status));
                EXPECT_EQ(opened->group(), friends);
                EXPECT_EQ(GroupDirectory::openOrCreate(path, group()).identity(),
                          opened->identity());
            });
        }
    }

    /// What stands there is nobody's to use, and stays as it is.
    void expectRefused() const {
        struct stat before {};
        demand(::lstat(own().c_str(), &before) == 0);
        for (const std::string& member : {accounts::anna, accounts::ben, std::string("root")}) {
            as(member, [&] {
                EXPECT_THROW(GroupDirectory::tryOpen(path, group()), GroupDirectoryError);
                EXPECT_THROW(GroupDirectory::openOrCreate(path, group()), GroupDirectoryError);
            });
        }
        struct stat after {};
        demand(::lstat(own().c_str(), &after) == 0);
        EXPECT_EQ(after.st_ino, before.st_ino);
        EXPECT_EQ(after.st_mode, before.st_mode);
        EXPECT_EQ(after.st_gid, before.st_gid);
    }

    static Group group() { return {accounts::friends}; }

    // NOLINTBEGIN(cppcoreguidelines-non-private-member-variables-in-classes): a fixture
    const foundation::os::GroupDirectoryPath path{"/dev/shm/group directories",
                                                  {"first", "second", "own"}};
    gid_t friends = 0;
    // NOLINTEND(cppcoreguidelines-non-private-member-variables-in-classes)
};

} // namespace tests
