#include "endpointregistry/Endpoint.h"

#include "endpointregistry/EntryName.h"
#include "tests/endpointregistry/FoldersTools.h"
#include "tests/endpointregistry/LockedFileTools.h"
#include "tests/endpointregistry/SharingTools.h"
#include "tests/support/ForkedProcess.h"
#include "tests/support/TestAccounts.h"

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <filesystem>
#include <functional>
#include <gtest/gtest.h>
#include <initializer_list>
#include <optional>
#include <stdexcept>
#include <string>
#include <sys/shm.h>
#include <sys/stat.h>
#include <sys/xattr.h>
#include <system_error>
#include <unistd.h>
#include <vector>

using namespace agent::spf::endpointregistry;
using tests::as;
using tests::DataPair;
using tests::DataPairs;
using tests::Names;
using tests::Trustees;

namespace {

namespace accounts = tests::accounts;
namespace fs = std::filesystem;
using accounts::anna;
using accounts::ben;
using accounts::carl;
using accounts::family;
using accounts::friends;

const DataPair data("data of", "anna");
const std::string tag = "tag";
const std::string key = "key";

/// Where carl keeps what members are to be led to.
const std::string lair = "/home/Shared/lair";

std::string level(const std::string& parent) {
    return tests::sharedTop + "/" + parent;
}

std::string groupFolder(const std::string& parent, const std::string& trustee = friends) {
    return level(parent) + "/" + hashString(trustee);
}

void demand(int result, const std::string& path) {
    if (result != 0) {
        throw std::system_error(errno, std::generic_category(), path);
    }
}

void makePublicFolders(std::initializer_list<std::string> paths) {
    for (const std::string& path : paths) {
        tests::makeFolder(path, 0777);
    }
}

/// All that a stranger has planted, before and after: names, kinds, owners, modes and sizes.
Names inventory() {
    Names items;
    for (const auto& item : fs::recursive_directory_iterator("/home/Shared")) {
        const struct stat status = tests::statusOf(item.path());
        if (status.st_uid == accounts::userId(carl)) {
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
Names writtenIntoHisPlaces() {
    Names written;
    for (const auto& item : fs::recursive_directory_iterator("/home/Shared")) {
        const struct stat status = tests::statusOf(item.path());
        if (tests::statusOf(item.path().parent_path()).st_uid == accounts::userId(carl) &&
            status.st_uid != accounts::userId(carl) && !S_ISDIR(status.st_mode)) {
            written.push_back(item.path());
        }
    }
    return written;
}

enum class Outcome { refused, works };

/// As a user: shares an entry, and tells whether that went.
Outcome share(Endpoint& endpoint) {
    try {
        endpoint.addTrustees({friends});
        return Outcome::works;
    } catch (const std::runtime_error&) {
        EXPECT_EQ(endpoint.getTrustees(), Trustees());
        return Outcome::refused;
    }
}

/// A lookup of the group where there may be nothing to be trusted.
std::optional<DataPairs> listFriends() {
    try {
        return Endpoint::list({friends});
    } catch (const std::runtime_error&) {
        return std::nullopt;
    }
}

/// carl cannot list, read or attach to anything that belongs to the group.
void expectNothingForCarl() {
    as(carl, [] {
        for (const std::string& parent : {tests::entryParent, tests::tableParent}) {
            std::error_code error;
            const std::string folder = groupFolder(parent);
            if (fs::is_directory(folder, error) &&
                tests::statusOf(folder).st_uid != accounts::userId(carl)) {
                EXPECT_NE(::access(folder.c_str(), R_OK), 0) << folder;
                EXPECT_NE(::access(folder.c_str(), X_OK), 0) << folder;
            }
        }
        for (const tests::KernelSegment& segment : tests::kernelSegments()) {
            EXPECT_EQ(::shmat(segment.id, nullptr, SHM_RDONLY),
                      reinterpret_cast<void*>(-1)); // NOLINT: the system's value for failure
        }
        EXPECT_EQ(listFriends().value_or(DataPairs()), DataPairs());
    });
}

class EndpointSharingHostile : public tests::SharingTest {
protected:
    /// Lets carl plant something, and expects that it harms nobody and gains him nothing.
    static void expectHarmless(const std::function<void()>& plant,
                               std::optional<Outcome> expected = {}) {
        as(carl, plant);
        const Names before = inventory();
        for (const std::string& user : {anna, ben}) {
            tests::ForkedProcess member(
                [&](tests::Channel& test) { shareAs(user, expected, test); });
            member.channel().receive();
            expectNothingForCarl();
            member.channel().send("end");
            EXPECT_EQ(member.waitForExit(), 0) << user;
        }
        EXPECT_EQ(inventory(), before);
        EXPECT_EQ(writtenIntoHisPlaces(), Names());
    }

private:
    static void shareAs(const std::string& user, std::optional<Outcome> expected,
                        tests::Channel& test) {
        accounts::become(user);
        const DataPairs own{{"data of", user}};
        Endpoint endpoint(own.front(), tag, key);
        const Outcome outcome = share(endpoint);
        EXPECT_EQ(outcome, expected.value_or(outcome));
        if (outcome == Outcome::works) {
            EXPECT_EQ(Endpoint::list({friends}), own);
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

} // namespace

TEST_F(EndpointSharingHostile, PlantsFilesInPlaceOfFolders) {
    using Planted = std::vector<std::string>;
    for (const Planted& path : {Planted{}, Planted{tests::entryParent}, Planted{tests::tableParent},
                                Planted{tests::entryParent, hashString(friends)},
                                Planted{tests::tableParent, hashString(friends)}}) {
        clearMachine();
        tests::provideSharedFolder();
        expectHarmless(
            [&path] {
                std::string place = tests::sharedTop;
                for (const std::string& next : path) {
                    tests::makeFolder(place, 0777);
                    place += "/" + next;
                }
                tests::makeFile(place, 0666);
            },
            Outcome::refused);
    }
}

TEST_F(EndpointSharingHostile, PlantsPublicFoldersInPlaceOfTheGroups) {
    for (const std::string& parent : {tests::entryParent, tests::tableParent}) {
        for (const mode_t mode : {0777U, 0770U, 0700U, 02777U, 01777U}) {
            clearMachine();
            tests::provideSharedFolder();
            expectHarmless(
                [&] {
                    makePublicFolders({tests::sharedTop, level(parent)});
                    tests::makeFolder(groupFolder(parent), mode);
                },
                Outcome::refused);
        }
    }
}

TEST_F(EndpointSharingHostile, PlantsPublicFoldersAboveTheGroups) {
    expectHarmless([] {
        makePublicFolders({tests::sharedTop, level(tests::entryParent), level(tests::tableParent)});
    });
}

TEST_F(EndpointSharingHostile, PlantsFoldersThatHandTheirGroupDown) {
    for (const std::string& parent : {tests::entryParent, tests::tableParent}) {
        clearMachine();
        tests::provideSharedFolder();
        expectHarmless([&] {
            tests::makeFolder(tests::sharedTop, 02777);
            tests::makeFolder(level(parent), 02777);
        });
    }
}

TEST_F(EndpointSharingHostile, PlantsFoldersThatNobodyElseMayEnter) {
    for (const mode_t mode : {0700U, 0755U, 0000U}) {
        clearMachine();
        tests::provideSharedFolder();
        expectHarmless([mode] { tests::makeFolder(tests::sharedTop, mode); }, Outcome::refused);
        clearMachine();
        tests::provideSharedFolder();
        expectHarmless(
            [mode] {
                makePublicFolders({tests::sharedTop});
                tests::makeFolder(level(tests::entryParent), mode);
            },
            Outcome::refused);
    }
}

TEST_F(EndpointSharingHostile, PlantsLinksToFoldersOfHis) {
    const std::vector<std::function<void()>> plants{
        [] { fs::create_directory_symlink(lair, tests::sharedTop); },
        [] {
            makePublicFolders({tests::sharedTop});
            fs::create_directory_symlink(lair, level(tests::entryParent));
        },
        [] {
            makePublicFolders({tests::sharedTop});
            fs::create_directory_symlink(lair, level(tests::tableParent));
        },
        [] {
            makePublicFolders({tests::sharedTop, level(tests::entryParent)});
            fs::create_directory_symlink(lair, groupFolder(tests::entryParent));
        },
        [] {
            makePublicFolders({tests::sharedTop, level(tests::tableParent)});
            fs::create_directory_symlink(lair, groupFolder(tests::tableParent));
        },
    };
    for (const auto& plant : plants) {
        clearMachine();
        tests::provideSharedFolder();
        expectHarmless(
            [&plant] {
                makePublicFolders({lair});
                plant();
            },
            Outcome::refused);
        EXPECT_TRUE(fs::is_empty(lair));
    }
}

TEST_F(EndpointSharingHostile, PlantsLinksThatLeadNowhere) {
    for (const std::string& place :
         {tests::sharedTop, level(tests::entryParent), groupFolder(tests::entryParent),
          groupFolder(tests::tableParent)}) {
        clearMachine();
        tests::provideSharedFolder();
        expectHarmless(
            [&place] {
                fs::create_directories(fs::path(place).parent_path());
                for (fs::path above = fs::path(place).parent_path(); above != "/home/Shared";
                     above = above.parent_path()) {
                    fs::permissions(above, fs::perms::all);
                }
                fs::create_symlink("/home/Shared/nowhere", place);
            },
            Outcome::refused);
        EXPECT_FALSE(fs::exists("/home/Shared/nowhere"));
    }
}

TEST_F(EndpointSharingHostile, PlantsALinkToAMembersPrivateEntries) {
    // A group's entry has the name of the private one, so whoever follows the link takes one for
    // the other, and clears away what seems to be dead.
    tests::ForkedProcess member([](tests::Channel& test) {
        accounts::become(anna);
        const Endpoint living(data, tag, key);
        const tests::PlantedEntry dead(
            tests::entryName({"dead", ""}, tag, "dead", tests::noProcess),
            tests::segmentBytes({"dead", ""}));
        const Names entries = tests::entryFiles();
        test.send(tests::entryFolder());
        test.receive();
        EXPECT_EQ(listFriends().value_or(DataPairs()), DataPairs());
        EXPECT_EQ(Endpoint::find(tag, key), data);
        EXPECT_EQ(tests::entryFiles(), entries);
        EXPECT_TRUE(dead.hasFile());
    });
    const std::string entries = member.channel().receive();
    as(carl, [&entries] {
        makePublicFolders({tests::sharedTop, level(tests::entryParent)});
        fs::create_directory_symlink(entries, groupFolder(tests::entryParent));
    });
    member.channel().send("look");
    EXPECT_EQ(member.waitForExit(), 0);
}

TEST_F(EndpointSharingHostile, PlantsFoldersWithAccessControlLists) {
    // The one entry of the default list beyond the mode's own lets carl do everything.
    const auto entry = [](std::uint16_t kind, std::uint16_t rights, std::uint32_t id) {
        std::string bytes;
        for (const unsigned value : {unsigned{kind}, unsigned{rights}}) {
            bytes.push_back(static_cast<char>(value & 0xffU));
            bytes.push_back(static_cast<char>(value >> 8U));
        }
        for (unsigned shift = 0; shift < 32; shift += 8) {
            bytes.push_back(static_cast<char>((id >> shift) & 0xffU));
        }
        return bytes;
    };
    constexpr std::uint32_t noId = 0xffffffff;
    const std::string list = std::string("\2\0\0\0", 4) + entry(0x01, 7, noId) +
                             entry(0x02, 7, accounts::userId(carl)) + entry(0x04, 7, noId) +
                             entry(0x10, 7, noId) + entry(0x20, 7, noId);
    const std::string probe = "/home/Shared/probe";
    tests::makeFolder(probe, 0777);
    if (::setxattr(probe.c_str(), "system.posix_acl_default", list.data(), list.size(), 0) != 0) {
        GTEST_SKIP() << "needs access control lists in /home";
    }
    fs::remove(probe);
    expectHarmless([&list] {
        makePublicFolders({tests::sharedTop, level(tests::entryParent), level(tests::tableParent)});
        for (const std::string& folder :
             {tests::sharedTop, level(tests::entryParent), level(tests::tableParent)}) {
            demand(
                ::setxattr(folder.c_str(), "system.posix_acl_default", list.data(), list.size(), 0),
                folder);
        }
    });
}

TEST_F(EndpointSharingHostile, FindsFoldersOfTheGroupThatAreTooOpenUnused) {
    for (const mode_t mode : {0777U, 0775U, 0771U}) {
        for (const std::string& parent : {tests::entryParent, tests::tableParent}) {
            clearMachine();
            tests::provideSharedFolder();
            as(anna, [&] {
                makePublicFolders({tests::sharedTop, level(parent)});
                tests::makeFolder(groupFolder(parent), 0700);
                demand(::chown(groupFolder(parent).c_str(), static_cast<uid_t>(-1),
                               accounts::groupId(friends)),
                       parent);
                demand(::chmod(groupFolder(parent).c_str(), mode), parent);
            });
            as(ben, [] {
                Endpoint endpoint(data, tag, key);
                EXPECT_EQ(share(endpoint), Outcome::refused);
                EXPECT_EQ(Endpoint::find(tag, key), data);
            });
            EXPECT_TRUE(fs::is_empty(groupFolder(parent)));
        }
    }
}

TEST_F(EndpointSharingHostile, PlantsNothingThatHarmsOtherGroups) {
    as(carl, [] {
        makePublicFolders({tests::sharedTop, level(tests::entryParent), level(tests::tableParent)});
        makePublicFolders({groupFolder(tests::entryParent), groupFolder(tests::tableParent)});
    });
    as(anna, [] {
        Endpoint endpoint(data, tag, key);
        EXPECT_THROW(endpoint.addTrustees({family, friends}), std::runtime_error);
        EXPECT_EQ(endpoint.getTrustees(), Trustees{family});
        EXPECT_EQ(Endpoint::find(tag, key, {family}), data);
    });
}
