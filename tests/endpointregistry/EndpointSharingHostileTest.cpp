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
using tests::Trustees;

namespace accounts = tests::accounts;
using accounts::anna;
using accounts::ben;
using accounts::carl;
using accounts::family;
using accounts::friends;

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
