#include "tests/endpointregistry/SharingHostile.h"

#include <filesystem>
#include <functional>
#include <gtest/gtest.h>
#include <string>
#include <vector>

using namespace agent::spf::endpointregistry;
using namespace tests::hostile;
using tests::as;
using tests::DataPairs;
using tests::Names;

namespace accounts = tests::accounts;
using accounts::anna;
using accounts::carl;

namespace {

/// Where carl keeps what members are to be led to.
const std::string lair = "/home/Shared/lair";

class EndpointSharingHostileLinks : public EndpointSharingHostile {};

} // namespace

TEST_F(EndpointSharingHostileLinks, PlantsLinksToFoldersOfHis) {
    std::vector<std::function<void()>> plants{
        [] { fs::create_directory_symlink(lair, tests::sharedTop); },
    };
    for (const std::string& parent : allParents) {
        plants.emplace_back([parent] {
            makePublicFolders({tests::sharedTop});
            fs::create_directory_symlink(lair, level(parent));
        });
        plants.emplace_back([parent] {
            makePublicFolders({tests::sharedTop, level(parent)});
            fs::create_directory_symlink(lair, groupFolder(parent));
        });
    }
    for (const auto& plant : plants) {
        startAfresh();
        expectHarmless(
            [&plant] {
                makePublicFolders({lair});
                plant();
            },
            Outcome::refused);
        EXPECT_TRUE(fs::is_empty(lair));
    }
}

TEST_F(EndpointSharingHostileLinks, PlantsLinksThatLeadNowhere) {
    for (const std::string& where :
         {tests::sharedTop, level(tests::entryParent), groupFolder(tests::entryParent),
          groupFolder(tests::tableParent), groupFolder(tests::segmentParent)}) {
        startAfresh();
        expectHarmless(
            [&where] {
                fs::create_directories(fs::path(where).parent_path());
                for (fs::path above = fs::path(where).parent_path(); above != "/home/Shared";
                     above = above.parent_path()) {
                    fs::permissions(above, fs::perms::all);
                }
                fs::create_symlink("/home/Shared/nowhere", where);
            },
            Outcome::refused);
        EXPECT_FALSE(fs::exists("/home/Shared/nowhere"));
    }
}

TEST_F(EndpointSharingHostileLinks, PlantsALinkToAMembersPrivateEntries) {
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
