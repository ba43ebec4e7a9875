#include "tests/endpointregistry/SharingHostile.h"

#include <cstdint>
#include <filesystem>
#include <functional>
#include <gtest/gtest.h>
#include <stdexcept>
#include <string>
#include <sys/stat.h>
#include <sys/xattr.h>
#include <unistd.h>
#include <vector>

using namespace agent::spf::endpointregistry;
using namespace tests::hostile;
using tests::as;
using tests::Names;
using tests::Trustees;

namespace accounts = tests::accounts;
using accounts::anna;
using accounts::ben;
using accounts::carl;
using accounts::family;
using accounts::friends;

namespace {

/// As a member: makes a folder of the group's with this mode.
void makeGroupFolder(const std::string& parent, mode_t mode) {
    if (!fs::exists(level(parent))) {
        fs::create_directories(level(parent));
        fs::permissions(tests::sharedTop, fs::perms::all);
        fs::permissions(level(parent), fs::perms::all);
    }
    const std::string folder = groupFolder(parent);
    tests::makeFolder(folder, 0700);
    demand(::chown(folder.c_str(), static_cast<uid_t>(-1), accounts::groupId(friends)), folder);
    demand(::chmod(folder.c_str(), mode), folder);
}

} // namespace

TEST_F(EndpointSharingHostile, PlantsFilesInPlaceOfFolders) {
    using Planted = std::vector<std::string>;
    std::vector<Planted> places{{}};
    for (const std::string& parent : allParents) {
        places.push_back({parent});
        places.push_back({parent, fs::path(groupFolder(parent)).filename()});
    }
    for (const Planted& path : places) {
        startAfresh();
        expectHarmless(
            [&path] {
                std::string where = tests::sharedTop;
                for (const std::string& next : path) {
                    tests::makeFolder(where, 0777);
                    where += "/" + next;
                }
                tests::makeFile(where, 0666);
            },
            Outcome::refused);
    }
}

TEST_F(EndpointSharingHostile, PlantsPublicFoldersInPlaceOfTheGroups) {
    for (const std::string& parent : allParents) {
        for (const mode_t mode : {0777U, 0770U, 0700U, 02777U, 01777U}) {
            startAfresh();
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
        makePublicFolders({tests::sharedTop});
        for (const std::string& parent : allParents) {
            makePublicFolders({level(parent)});
        }
    });
}

TEST_F(EndpointSharingHostile, PlantsFoldersThatHandTheirGroupDown) {
    for (const std::string& parent : allParents) {
        startAfresh();
        expectHarmless([&] {
            tests::makeFolder(tests::sharedTop, 02777);
            tests::makeFolder(level(parent), 02777);
        });
    }
}

TEST_F(EndpointSharingHostile, PlantsFoldersThatNobodyElseMayEnter) {
    for (const mode_t mode : {0700U, 0755U, 0000U}) {
        startAfresh();
        expectHarmless([mode] { tests::makeFolder(tests::sharedTop, mode); }, Outcome::refused);
        startAfresh();
        expectHarmless(
            [mode] {
                makePublicFolders({tests::sharedTop});
                tests::makeFolder(level(tests::entryParent), mode);
            },
            Outcome::refused);
    }
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
        Names folders{tests::sharedTop};
        for (const std::string& parent : allParents) {
            folders.push_back(level(parent));
        }
        for (const std::string& folder : folders) {
            tests::makeFolder(folder, 0777);
            demand(
                ::setxattr(folder.c_str(), "system.posix_acl_default", list.data(), list.size(), 0),
                folder);
        }
    });
}

TEST_F(EndpointSharingHostile, LeavesFoldersOfTheGroupUnusedThatOthersMayWriteToOrTheGroupMayNot) {
    for (const mode_t mode : {0777U, 0772U, 0750U, 0730U}) {
        for (const std::string& parent : allParents) {
            startAfresh();
            as(anna, [&] { makeGroupFolder(parent, mode); });
            as(ben, [] {
                Endpoint endpoint(data, tag, key);
                EXPECT_EQ(share(endpoint), Outcome::refused);
                EXPECT_EQ(Endpoint::find(tag, key), data);
            });
            EXPECT_TRUE(fs::is_empty(groupFolder(parent)));
        }
    }
}

TEST_F(EndpointSharingHostile, FindsFoldersOfTheGroupThatOthersMayOnlyReadGoodEnough) {
    for (const mode_t mode : {0775U, 0771U, 0774U, 02770U, 0070U}) {
        startAfresh();
        as(anna, [mode] {
            for (const std::string& parent : allParents) {
                makeGroupFolder(parent, mode);
            }
        });
        as(ben, [] {
            Endpoint endpoint(data, tag, key);
            EXPECT_EQ(share(endpoint), Outcome::works);
            EXPECT_EQ(Endpoint::list({friends}), tests::DataPairs{data});
        });
        for (const std::string& parent : allParents) {
            EXPECT_EQ(tests::modeOf(groupFolder(parent)), mode);
        }
    }
}

TEST_F(EndpointSharingHostile, PlantsNothingThatHarmsOtherGroups) {
    as(carl, [] {
        makePublicFolders({tests::sharedTop});
        for (const std::string& parent : allParents) {
            makePublicFolders({level(parent), groupFolder(parent)});
        }
    });
    as(anna, [] {
        Endpoint endpoint(data, tag, key);
        EXPECT_THROW(endpoint.addTrustees({family, friends}), std::runtime_error);
        EXPECT_EQ(endpoint.getTrustees(), Trustees{family});
        EXPECT_EQ(Endpoint::find(tag, key, {family}), data);
    });
}
