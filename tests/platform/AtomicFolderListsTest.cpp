#include "foundation/os/AtomicFolder.h"
#include "foundation/os/FileDescriptor.h"
#include "tests/platform/AtomicFolderTools.h"

#include <array>
#include <cerrno>
#include <cstdint>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <optional>
#include <string>
#include <sys/xattr.h>
#include <unistd.h>

namespace {

namespace fs = std::filesystem;
using foundation::os::carriesAccessControlList;
using foundation::os::createFolderAtomically;
using foundation::os::FileDescriptor;
using tests::AtomicFolders;

/// An access control list of one user beside the owner, as the kernel stores it.
struct AccessControlList {
    struct Entry {
        std::uint16_t tag;
        std::uint16_t permissions;
        std::uint32_t id;
    };
    std::uint32_t version = 2;
    std::array<Entry, 5> entries{{
        {0x01, 7, UINT32_MAX},
        {0x02, 7, 60803},
        {0x04, 7, UINT32_MAX},
        {0x10, 7, UINT32_MAX},
        {0x20, 7, UINT32_MAX},
    }};
};
constexpr const char* const handedDown = "system.posix_acl_default";
constexpr const char* const ownList = "system.posix_acl_access";

class AtomicFoldersWithLists : public AtomicFolders {
protected:
    void SetUp() override {
        AtomicFolders::SetUp();
        if (!setList(parent, handedDown)) {
            GTEST_SKIP() << "needs a file system with access control lists";
        }
    }

    static bool setList(const std::string& folder, const char* kind) {
        const AccessControlList list;
        return ::setxattr(folder.c_str(), kind, &list, sizeof list, 0) == 0;
    }

    static bool hasList(const std::string& folder) {
        const FileDescriptor open(::open(folder.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
        return carriesAccessControlList(open.get());
    }
};

TEST_F(AtomicFoldersWithLists, InheritNone) {
    // What the system's own call makes here inherits the list.
    ASSERT_EQ(::mkdir(other.c_str(), 0700), 0);
    ASSERT_GT(::getxattr(other.c_str(), ownList, nullptr, 0), 0);
    for (const mode_t mode : {0700U, 0770U, 02775U}) {
        EXPECT_EQ(createFolderAtomically(path, mode, ::getegid()), 0);
        for (const char* const kind : {handedDown, ownList}) {
            EXPECT_EQ(::getxattr(path.c_str(), kind, nullptr, 0), -1);
            EXPECT_EQ(errno, ENODATA);
        }
        EXPECT_EQ(tests::permissionsOf(path), mode);
        EXPECT_FALSE(hasList(path));
        fs::remove(path);
    }
}

TEST_F(AtomicFoldersWithLists, AreToldFromThoseThatCarryOne) {
    ASSERT_EQ(::mkdir(other.c_str(), 0700), 0);
    EXPECT_TRUE(hasList(other)) << "both kinds";
    EXPECT_TRUE(hasList(parent)) << "one that is handed down only";
    ASSERT_EQ(createFolderAtomically(path, 0700, std::nullopt), 0);
    ASSERT_TRUE(setList(path, ownList));
    EXPECT_TRUE(hasList(path)) << "one of its own only";
    EXPECT_TRUE(carriesAccessControlList(-1)) << "cannot be asked about";
}

} // namespace
