#include "endpointregistry/Endpoint.h"

#include "endpointregistry/NamedStringArray.h"
#include "tests/endpointregistry/EndpointTools.h"
#include "tests/endpointregistry/FoldersRefusedCalls.h"
#include "tests/endpointregistry/LockedFileTools.h"
#include "tests/endpointregistry/SharingTools.h"
#include "tests/support/ForkedProcess.h"
#include "tests/support/TestAccounts.h"

#include <cerrno>
#include <filesystem>
#include <functional>
#include <gtest/gtest.h>
#include <optional>
#include <stdexcept>
#include <string>
#include <sys/syscall.h>

using namespace agent::spf::endpointregistry;
using tests::Channel;
using tests::DataPair;
using tests::DataPairs;
using tests::ForkedProcess;
using tests::Names;

namespace {

namespace accounts = tests::accounts;
namespace fs = std::filesystem;
using accounts::anna;
using accounts::ben;
using accounts::carl;
using accounts::friends;

const DataPair data("data of", "anna");
const std::string tag = "tag";
const std::string key = "key";

/// How old a system is, or how much a filter has heard of: what it answers to those who would open
/// a path in one step; 0 where they may.
using Refusal = int;

void becomeOn(Refusal refusal, const std::string& user) {
    accounts::become(user);
    if (refusal != 0) {
        tests::refuseCalls({SYS_openat2}, refusal);
    }
}

class EndpointSharingOnOldSystems : public tests::SharingTest {
protected:
    static void as(Refusal refusal, const std::string& user, const std::function<void()>& body) {
        EXPECT_EQ(tests::runInChild([&] {
                      becomeOn(refusal, user);
                      body();
                  }),
                  0)
            << user << " meets " << refusal;
    }

    template<typename Body>
    static void forEachPairOfSystems(Body body) {
        for (const Refusal publishers : {0, ENOSYS, EPERM}) {
            for (const Refusal readers : {0, ENOSYS, EPERM}) {
                SCOPED_TRACE(std::to_string(publishers) + " and " + std::to_string(readers));
                clearMachine();
                tests::provideSharedFolder();
                body(publishers, readers);
            }
        }
    }
};

} // namespace

TEST_F(EndpointSharingOnOldSystems, WorksAsOnNewOnes) {
    forEachPairOfSystems([](Refusal publishers, Refusal readers) {
        ForkedProcess publisher([&](Channel& test) {
            becomeOn(publishers, anna);
            Endpoint endpoint(data, tag, key);
            endpoint.addTrustees({friends});
            test.send("shared");
            test.receive();
            endpoint.removeTrustees({friends});
            test.send("withdrawn");
            test.receive();
            endpoint.addTrustees({friends});
            test.send("shared again");
            test.receive();
        });
        const auto expectThere = [&](bool isThere) {
            as(readers, ben, [isThere] {
                const DataPairs all = isThere ? DataPairs{data} : DataPairs();
                const auto one = isThere ? std::optional(data) : std::nullopt;
                EXPECT_EQ(Endpoint::list({friends}), all);
                EXPECT_EQ(Endpoint::filter(tag, {friends}), all);
                EXPECT_EQ(Endpoint::findFromAllTrustees(tag, key), one);
                EXPECT_EQ(Endpoint::findFromAllTrustees(tag, "other key"), std::nullopt);
            });
        };
        publisher.channel().receive();
        expectThere(true);
        publisher.channel().send("withdraw");
        publisher.channel().receive();
        expectThere(false);
        publisher.channel().send("share again");
        publisher.channel().receive();
        expectThere(true);
        publisher.channel().send("end");
        EXPECT_EQ(publisher.waitForExit(), 0);
        expectThere(false);
        EXPECT_EQ(tests::sharedEntries(friends), Names());
    });
}

TEST_F(EndpointSharingOnOldSystems, ClearsUpAfterTheDead) {
    forEachPairOfSystems([](Refusal publishers, Refusal readers) {
        ForkedProcess publisher([&](Channel& test) {
            becomeOn(publishers, anna);
            Endpoint endpoint(data, tag, key);
            endpoint.addTrustees({friends});
            test.send("shared");
            test.receive();
        });
        publisher.channel().receive();
        publisher.kill();
        as(readers, ben, [] {
            EXPECT_EQ(Endpoint::list({friends}), DataPairs());
            tests::expectNothingShared(friends);
        });
    });
}

TEST_F(EndpointSharingOnOldSystems, KeepsTables) {
    forEachPairOfSystems([](Refusal writers, Refusal readers) {
        as(writers, anna, [] {
            NamedStringArray table("table", 1, friends);
            table.insert({"first", "row"});
            table.insert({"second", "row"});
        });
        as(readers, ben, [] {
            NamedStringArray table("table", 1, friends);
            EXPECT_EQ(table.filter({}).size(), 2U);
            EXPECT_EQ(table.filter({"first"}), (tests::Rows{{"first", "row"}}));
        });
    });
}

TEST_F(EndpointSharingOnOldSystems, WorksBelowASharedFolderThatIsALink) {
    const std::string target = "/home/Target";
    for (const Refusal refusal : {0, ENOSYS}) {
        clearMachine();
        fs::remove_all(target);
        tests::provideSharedFolder();
        fs::rename("/home/Shared", target);
        fs::create_symlink(target, "/home/Shared");
        tests::Sharer publisher(anna, data, tag, key, {friends});
        as(refusal, ben, [] {
            EXPECT_EQ(Endpoint::list({friends}), DataPairs{data});
            Endpoint own({"data of", "ben"}, "other tag", key);
            own.addTrustees({friends});
            EXPECT_EQ(Endpoint::list({friends}).size(), 2U);
        });
        publisher.end();
    }
    fs::remove("/home/Shared");
    fs::remove_all(target);
}

TEST_F(EndpointSharingOnOldSystems, FollowsNoLinkOfAStrangers) {
    for (const Refusal refusal : {0, ENOSYS, EPERM}) {
        clearMachine();
        tests::provideSharedFolder();
        tests::Sharer publisher(anna, data, tag, key, {friends});
        const std::string level = tests::sharedTop + "/" + tests::entryParent;
        as(0, carl, [&level] {
            fs::rename(level, tests::sharedTop + "/elsewhere");
            fs::create_symlink("elsewhere", level);
        });
        as(refusal, ben, [] { EXPECT_THROW(Endpoint::list({friends}), std::runtime_error); });
    }
}
