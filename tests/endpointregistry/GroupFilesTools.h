#pragma once

#include "tests/endpointregistry/FoldersTools.h"
#include "tests/endpointregistry/LockedFileTools.h"
#include "tests/endpointregistry/SharingTools.h"
#include "tests/support/TestAccounts.h"

#include <gtest/gtest.h>
#include <string>
#include <sys/stat.h>
#include <sys/types.h>

/// What tests of a group's folders and files have in common: one file of the friends'.
namespace tests::groupfiles {

inline const std::string parent = "joined";
inline const std::string name = "file";
inline const std::string middle = sharedTop + "/" + parent;
inline const std::string folder = sharedFolder(parent, accounts::friends);
inline const std::string path = folder + name;

/// Owner, group, mode and identity of what stands somewhere: everything that sharing leaves alone.
struct Standing {
    explicit Standing(const std::string& path)
        : status(statusOf(path)) {}

    bool operator==(const Standing& other) const {
        return status.st_ino == other.status.st_ino && status.st_uid == other.status.st_uid &&
               status.st_gid == other.status.st_gid && status.st_mode == other.status.st_mode;
    }

    struct stat status;
};

inline void expectStanding(const std::string& where, const std::string& owner,
                           const std::string& group, mode_t mode) {
    const struct stat status = statusOf(where);
    EXPECT_EQ(status.st_uid, accounts::userId(owner)) << where;
    EXPECT_EQ(status.st_gid, accounts::groupId(group)) << where;
    EXPECT_EQ(modeOf(where), mode) << where;
}

} // namespace tests::groupfiles
