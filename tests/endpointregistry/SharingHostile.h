#pragma once

#include "endpointregistry/Endpoint.h"
#include "endpointregistry/EntryName.h"
#include "tests/endpointregistry/FoldersTools.h"
#include "tests/endpointregistry/LockedFileTools.h"
#include "tests/endpointregistry/SharingTools.h"
#include "tests/support/ForkedProcess.h"
#include "tests/support/TestAccounts.h"

#include <algorithm>
#include <cerrno>
#include <filesystem>
#include <functional>
#include <gtest/gtest.h>
#include <initializer_list>
#include <optional>
#include <stdexcept>
#include <string>
#include <sys/shm.h>
#include <sys/stat.h>
#include <system_error>
#include <unistd.h>
#include <vector>

/// What a stranger does who plants things where members of a group will share, and what must not
/// come of it.
namespace tests::hostile {

namespace fs = std::filesystem;
using agent::spf::endpointregistry::Endpoint;
using agent::spf::endpointregistry::hashString;

inline const DataPair data("data of", "anna");
inline const std::string tag = "tag";
inline const std::string key = "key";

inline std::string level(const std::string& parent) {
    return sharedTop + "/" + parent;
}

inline std::string groupFolder(const std::string& parent,
                               const std::string& trustee = accounts::friends) {
    return level(parent) + "/" +
           (parent == segmentParent ? std::to_string(accounts::groupId(trustee))
                                    : hashString(trustee));
}

/// Every kind of folder that a group has.
inline const Names allParents{entryParent, tableParent, segmentParent};

inline void demand(int result, const std::string& path) {
    if (result != 0) {
        throw std::system_error(errno, std::generic_category(), path);
    }
}

inline void makePublicFolders(std::initializer_list<std::string> paths) {
    for (const std::string& path : paths) {
        makeFolder(path, 0777);
    }
}

/// All that a stranger has planted, before and after: names, kinds, owners, modes and sizes.
inline Names inventory() {
    Names items;
    for (const auto& item : fs::recursive_directory_iterator("/home/Shared")) {
        const struct stat status = statusOf(item.path());
        if (status.st_uid == accounts::userId(accounts::carl)) {
            items.push_back(item.path().string() + " " + std::to_string(status.st_mode) + " " +
                            std::to_string(status.st_gid) + " " +
                            (S_ISREG(status.st_mode) ? std::to_string(status.st_size) : ""));
        }
    }
    std::sort(items.begin(), items.end());
    return items;
}

/// The files that members were led to write into folders of carl's. Folders of theirs may stand in
/// his where those are open to all, as any member's are.
inline Names writtenIntoHisPlaces() {
    Names written;
    for (const auto& item : fs::recursive_directory_iterator("/home/Shared")) {
        const struct stat status = statusOf(item.path());
        if (statusOf(item.path().parent_path()).st_uid == accounts::userId(accounts::carl) &&
            status.st_uid != accounts::userId(accounts::carl) && !S_ISDIR(status.st_mode)) {
            written.push_back(item.path());
        }
    }
    return written;
}

enum class Outcome { refused, works };

/// As a user: shares an entry, and tells whether that went.
inline Outcome share(Endpoint& endpoint) {
    try {
        endpoint.addTrustees({accounts::friends});
        return Outcome::works;
    } catch (const std::runtime_error&) {
        EXPECT_EQ(endpoint.getTrustees(), Trustees());
        return Outcome::refused;
    }
}

/// A lookup of the group where there may be nothing to be trusted.
inline std::optional<DataPairs> listFriends() {
    try {
        return Endpoint::list({accounts::friends});
    } catch (const std::runtime_error&) {
        return std::nullopt;
    }
}

/// carl cannot list, read or attach to anything that belongs to the group.
inline void expectNothingForCarl() {
    as(accounts::carl, [] {
        for (const std::string& parent : allParents) {
            std::error_code error;
            const std::string folder = groupFolder(parent);
            if (fs::is_directory(folder, error) &&
                statusOf(folder).st_uid != accounts::userId(accounts::carl)) {
                EXPECT_NE(::access(folder.c_str(), R_OK), 0) << folder;
                EXPECT_NE(::access(folder.c_str(), X_OK), 0) << folder;
            }
        }
        for (const KernelSegment& segment : kernelSegments()) {
            EXPECT_EQ(::shmat(segment.id, nullptr, SHM_RDONLY),
                      reinterpret_cast<void*>(-1)); // NOLINT: the system's value for failure
        }
        EXPECT_EQ(listFriends().value_or(DataPairs()), DataPairs());
    });
}

class EndpointSharingHostile : public SharingTest {
protected:
    /// Lets carl plant something, and expects that it harms nobody and gains him nothing.
    static void expectHarmless(const std::function<void()>& plant,
                               std::optional<Outcome> expected = {}) {
        as(accounts::carl, plant);
        const Names before = inventory();
        for (const std::string& user : {accounts::anna, accounts::ben}) {
            ForkedProcess member([&](Channel& test) { shareAs(user, expected, test); });
            member.channel().receive();
            expectNothingForCarl();
            member.channel().send("end");
            EXPECT_EQ(member.waitForExit(), 0) << user;
        }
        EXPECT_EQ(inventory(), before);
        EXPECT_EQ(writtenIntoHisPlaces(), Names());
    }

private:
    static void shareAs(const std::string& user, std::optional<Outcome> expected, Channel& test) {
        accounts::become(user);
        const DataPairs own{{"data of", user}};
        Endpoint endpoint(own.front(), tag, key);
        const Outcome outcome = share(endpoint);
        EXPECT_EQ(outcome, expected.value_or(outcome));
        if (outcome == Outcome::works) {
            EXPECT_EQ(Endpoint::list({accounts::friends}), own);
        } else {
            EXPECT_EQ(listFriends().value_or(DataPairs()), DataPairs());
        }
        test.send("shared, or refused");
        test.receive();
        EXPECT_EQ(Endpoint::find(tag, key), own.front());
        EXPECT_EQ(Endpoint::list(), own);
        endpoint.reset();
        EXPECT_EQ(Endpoint::list(), DataPairs());
    }
};

} // namespace tests::hostile
