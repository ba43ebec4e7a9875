#include "endpointregistry/Endpoint.h"

#include "foundation/os/FileIdentity.h"
#include "tests/endpointregistry/GroupsWatch.h"
#include "tests/endpointregistry/LockedFileTools.h"
#include "tests/endpointregistry/SharingTools.h"
#include "tests/support/ForkedProcess.h"
#include "tests/support/TestAccounts.h"

#include <filesystem>
#include <functional>
#include <gtest/gtest.h>
#include <optional>
#include <string>
#include <unistd.h>
#include <utility>
#include <vector>

using namespace agent::spf::endpointregistry;
using foundation::os::identityAt;
using tests::DataPair;
using tests::DataPairs;
using tests::Names;
using tests::Rows;
using tests::Trustees;

namespace {

namespace accounts = tests::accounts;
namespace fs = std::filesystem;
using accounts::anna;
using accounts::family;
using accounts::friends;

const DataPair data("first", "second");
const std::string tag = "tag";
const std::string key = "key";

std::optional<DataPair> findIn(const std::string& trustee) {
    return Endpoint::find(tag, key, Trustees{trustee});
}

std::string ownName() {
    return tests::entryName(data, tag, key, ::getpid());
}

class EndpointTrustees : public tests::SharingTest {
protected:
    /// Runs the body with an endpoint of anna's, who is in three groups, and expects that nothing
    /// of hers is left anywhere after it.
    static void withEndpoint(const std::function<void(Endpoint&)>& body) {
        tests::as(anna, [&body] {
            Endpoint endpoint(data, tag, key);
            body(endpoint);
            endpoint.reset();
            expectNothingAnywhere();
        });
    }

    static void expectNothingAnywhere() {
        for (const std::string& trustee : {anna, family, friends}) {
            tests::expectNothingShared(trustee);
        }
        EXPECT_EQ(tests::entryFiles(), Names());
    }
};

} // namespace

TEST_F(EndpointTrustees, AreNoneAtFirst) {
    withEndpoint([](Endpoint& endpoint) { EXPECT_EQ(endpoint.getTrustees(), Trustees()); });
}

TEST_F(EndpointTrustees, FindTheEntryBesideTheOwner) {
    withEndpoint([](Endpoint& endpoint) {
        endpoint.addTrustees({friends, anna});
        EXPECT_EQ(endpoint.getTrustees(), (Trustees{anna, friends}));
        EXPECT_EQ(findIn(friends), data);
        EXPECT_EQ(findIn(anna), data);
        EXPECT_EQ(findIn(family), std::nullopt);
        EXPECT_EQ(Endpoint::find(tag, key), data);
        EXPECT_EQ(Endpoint::filter(tag, {friends}), DataPairs{data});
        EXPECT_EQ(Endpoint::list({friends}), DataPairs{data});
        EXPECT_EQ(Endpoint::listFromAllTrustees(), DataPairs{data});
    });
}

TEST_F(EndpointTrustees, AreAddedToThoseBefore) {
    withEndpoint([](Endpoint& endpoint) {
        endpoint.addTrustees({friends});
        endpoint.addTrustees({family});
        endpoint.addTrustees({});
        EXPECT_EQ(endpoint.getTrustees(), (Trustees{family, friends}));
        EXPECT_EQ(findIn(friends), data);
        EXPECT_EQ(findIn(family), data);
    });
}

TEST_F(EndpointTrustees, DoNotIncludeTheEmptyString) {
    withEndpoint([](Endpoint& endpoint) {
        endpoint.addTrustees({""});
        endpoint.setTrustees({""});
        EXPECT_EQ(endpoint.getTrustees(), Trustees());
        EXPECT_TRUE(fs::is_empty("/home/Shared"));
        EXPECT_TRUE(tests::kernelSegments().empty());
        endpoint.addTrustees({"", friends});
        EXPECT_EQ(endpoint.getTrustees(), Trustees{friends});
    });
}

TEST_F(EndpointTrustees, NeedASharedFolderOnlyWhereThereAreAny) {
    fs::remove_all("/home/Shared");
    tests::as(anna, [] {
        Endpoint endpoint(data, tag, key);
        endpoint.addTrustees({""});
        endpoint.addTrustees({});
        endpoint.removeTrustees({friends, ""});
        endpoint.setTrustees({});
        endpoint.clearTrustees();
        EXPECT_EQ(endpoint.getTrustees(), Trustees());
    });
}

TEST_F(EndpointTrustees, KeepTheEntryThatTheyHaveWhenTheyAreAddedAgain) {
    withEndpoint([](Endpoint& endpoint) {
        endpoint.addTrustees({friends});
        const std::string path = tests::sharedPath(friends, ownName());
        const auto before = identityAt(path);
        tests::GroupsWatch watch({friends});
        endpoint.addTrustees({friends});
        endpoint.addTrustees({"", friends});
        endpoint.setTrustees({friends});
        EXPECT_EQ(watch.changes(), Names());
        EXPECT_EQ(identityAt(path), before);
        EXPECT_TRUE(tests::isHeld(path));
        EXPECT_EQ(tests::rowsOf(friends), (Rows{{ownName(), data.first, data.second}}));
        EXPECT_EQ(endpoint.getTrustees(), Trustees{friends});
    });
}

TEST_F(EndpointTrustees, LoseTheEntryWhenTheyAreRemovedAndNoOtherDoes) {
    withEndpoint([](Endpoint& endpoint) {
        endpoint.addTrustees({anna, family, friends});
        endpoint.removeTrustees({family});
        EXPECT_EQ(endpoint.getTrustees(), (Trustees{anna, friends}));
        tests::expectNothingShared(family);
        EXPECT_EQ(findIn(anna), data);
        EXPECT_EQ(findIn(friends), data);
        EXPECT_EQ(Endpoint::find(tag, key), data);
    });
}

TEST_F(EndpointTrustees, AreIgnoredByRemovalWhenTheyHaveNoEntry) {
    withEndpoint([](Endpoint& endpoint) {
        endpoint.addTrustees({friends});
        endpoint.removeTrustees({"", family, "no group at all"});
        EXPECT_EQ(endpoint.getTrustees(), Trustees{friends});
        endpoint.removeTrustees({});
        EXPECT_EQ(findIn(friends), data);
    });
}

TEST_F(EndpointTrustees, AreClearedFromTheLastAddedToTheFirst) {
    withEndpoint([](Endpoint& endpoint) {
        for (const std::string& trustee : {friends, anna, family}) {
            endpoint.addTrustees({trustee});
        }
        tests::GroupsWatch watch({anna, family, friends});
        endpoint.clearTrustees();
        EXPECT_EQ(watch.changes(), (Names{"-family", "-anna", "-friends"}));
        EXPECT_EQ(endpoint.getTrustees(), Trustees());
        tests::expectNothingShared(friends);
        endpoint.clearTrustees();
        EXPECT_EQ(Endpoint::find(tag, key), data);
    });
}

TEST_F(EndpointTrustees, KeepTheirOrderWhenOneOfThemIsRemoved) {
    withEndpoint([](Endpoint& endpoint) {
        for (const std::string& trustee : {friends, anna, family}) {
            endpoint.addTrustees({trustee});
        }
        tests::GroupsWatch watch({anna, family, friends});
        endpoint.removeTrustees({anna});
        endpoint.addTrustees({anna});
        endpoint.clearTrustees();
        EXPECT_EQ(watch.changes(), (Names{"-anna", "+anna", "-anna", "-family", "-friends"}));
    });
}

TEST_F(EndpointTrustees, AreAddedInAscendingOrder) {
    withEndpoint([](Endpoint& endpoint) {
        endpoint.addTrustees({anna, family, friends});
        endpoint.clearTrustees();
        tests::GroupsWatch watch({anna, family, friends});
        endpoint.addTrustees({friends, family, anna});
        EXPECT_EQ(watch.changes(), (Names{"+anna", "+family", "+friends"}));
    });
}

TEST_F(EndpointTrustees, AreSetByAddingTheNewOnesBeforeOldOnesAreRemoved) {
    withEndpoint([](Endpoint& endpoint) {
        endpoint.addTrustees({anna, family, friends});
        endpoint.removeTrustees({family});
        tests::GroupsWatch watch({anna, family, friends});
        endpoint.setTrustees({family, friends});
        EXPECT_EQ(watch.changes(), (Names{"+family", "-anna"}));
        EXPECT_EQ(endpoint.getTrustees(), (Trustees{family, friends}));
    });
}

TEST_F(EndpointTrustees, AreAllRemovedBySettingNone) {
    withEndpoint([](Endpoint& endpoint) {
        endpoint.addTrustees({anna, friends});
        endpoint.setTrustees({});
        EXPECT_EQ(endpoint.getTrustees(), Trustees());
        tests::expectNothingShared(anna);
        tests::expectNothingShared(friends);
        EXPECT_EQ(Endpoint::find(tag, key), data);
    });
}

TEST_F(EndpointTrustees, FollowAMovedEndpoint) {
    withEndpoint([](Endpoint& endpoint) {
        endpoint.addTrustees({friends});
        tests::GroupsWatch watch({friends});
        Endpoint other(std::move(endpoint));
        EXPECT_EQ(other.getTrustees(), Trustees{friends});
        endpoint = std::move(other);
        EXPECT_EQ(endpoint.getTrustees(), Trustees{friends});
        EXPECT_EQ(watch.changes(), Names());
        EXPECT_EQ(findIn(friends), data);
    });
}

TEST_F(EndpointTrustees, LoseTheEntryOfAnEndpointThatIsAssignedTo) {
    withEndpoint([](Endpoint& endpoint) {
        endpoint.addTrustees({friends});
        Endpoint other({"other", "data"}, tag, "other key");
        other.addTrustees({friends, family});
        endpoint = std::move(other);
        EXPECT_EQ(findIn(friends), std::nullopt);
        EXPECT_EQ(endpoint.getTrustees(), (Trustees{family, friends}));
        EXPECT_EQ(Endpoint::list({friends}), (DataPairs{{"other", "data"}}));
    });
}

TEST_F(EndpointTrustees, LoseTheEntryOfAnEndpointThatIsDestroyedOrReset) {
    tests::as(anna, [] {
        {
            Endpoint endpoint(data, tag, key);
            endpoint.addTrustees({anna, friends});
        }
        expectNothingAnywhere();
        Endpoint endpoint(data, tag, key);
        endpoint.addTrustees({anna, friends});
        endpoint.reset();
        expectNothingAnywhere();
    });
}

TEST_F(EndpointTrustees, KeepTheEntryWhateverAForkedChildDoesWithItsCopy) {
    withEndpoint([](Endpoint& endpoint) {
        endpoint.addTrustees({family, friends});
        const Rows rows = tests::rowsOf(friends);
        const std::vector<std::function<void(Endpoint&)>> misdeeds{
            [](Endpoint& copy) { copy.reset(); },
            [](Endpoint& copy) { copy.clearTrustees(); },
            [](Endpoint& copy) { copy.removeTrustees({friends}); },
            [](Endpoint& copy) { copy.setTrustees({}); },
            [](Endpoint& copy) { const Endpoint other(std::move(copy)); },
        };
        tests::GroupsWatch watch({family, friends});
        for (const auto& misdeed : misdeeds) {
            EXPECT_EQ(tests::runInChild([&] { misdeed(endpoint); }), 0);
            EXPECT_EQ(tests::rowsOf(friends), rows);
            EXPECT_EQ(findIn(friends), data);
            EXPECT_EQ(findIn(family), data);
        }
        EXPECT_EQ(watch.changes(), Names());
        EXPECT_TRUE(tests::isHeld(tests::sharedPath(friends, ownName())));
    });
}

TEST_F(EndpointTrustees, GetWhateverBytesTheDataHasButZero) {
    std::string bytes;
    for (int byte = 1; byte < 256; ++byte) {
        bytes.push_back(static_cast<char>(byte));
    }
    const std::string large(1'000'000, 'x');
    for (const DataPair& pair : {DataPair("", "second"), DataPair("first", ""),
                                 DataPair(bytes, "\n" + bytes), DataPair(large, "end")}) {
        tests::as(anna, [&pair] {
            Endpoint endpoint(pair, tag, key);
            endpoint.addTrustees({friends});
            EXPECT_EQ(findIn(friends), pair);
        });
    }
}
