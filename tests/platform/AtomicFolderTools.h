#pragma once

#include "tests/support/ForkedProcess.h"
#include "tests/support/TestAccounts.h"

#include <algorithm>
#include <filesystem>
#include <functional>
#include <gtest/gtest.h>
#include <string>
#include <sys/stat.h>
#include <vector>

namespace tests {

inline constexpr mode_t allPermissionBits = 07777;

inline struct stat statusOfFolder(const std::string& path) {
    struct stat status {};
    EXPECT_EQ(::lstat(path.c_str(), &status), 0) << path;
    return status;
}

inline mode_t permissionsOf(const std::string& path) {
    return statusOfFolder(path).st_mode & allPermissionBits;
}

/// The folders of this test, in one of their own that everybody may write to.
class AtomicFolders : public testing::Test {
protected:
    void SetUp() override {
        std::filesystem::create_directory(parent);
        ASSERT_EQ(::chmod(parent.c_str(), 0777), 0);
    }
    void TearDown() override { std::filesystem::remove_all(parent); }

    std::vector<std::string> names() const {
        std::vector<std::string> found;
        for (const auto& entry : std::filesystem::directory_iterator(parent)) {
            found.push_back(entry.path().filename());
        }
        std::ranges::sort(found);
        return found;
    }

    // NOLINTBEGIN(cppcoreguidelines-non-private-member-variables-in-classes): a fixture
    const std::string parent = "/dev/shm/appearing folders";
    const std::string path = parent + "/folder";
    const std::string other = parent + "/other";
    // NOLINTEND(cppcoreguidelines-non-private-member-variables-in-classes)
};

/// The tests that act as several users.
class AtomicFoldersOfUsers : public AtomicFolders {
protected:
    void SetUp() override {
        if (!accounts::available()) {
            GTEST_SKIP() << accounts::whyNot;
        }
        AtomicFolders::SetUp();
    }

    static void as(const std::string& user, const std::function<void()>& body) {
        EXPECT_EQ(tests::runInChild([&] {
                      accounts::become(user);
                      body();
                  }),
                  0)
            << user;
    }
};

} // namespace tests
