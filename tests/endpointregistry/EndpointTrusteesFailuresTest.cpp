#include "endpointregistry/Endpoint.h"

#include "tests/endpointregistry/LoggersReportedFailure.h"
#include "tests/endpointregistry/SharingTools.h"
#include "tests/support/LogCapture.h"
#include "tests/support/TestAccounts.h"

#include <cstdint>
#include <filesystem>
#include <functional>
#include <grp.h>
#include <gtest/gtest.h>
#include <optional>
#include <stdexcept>
#include <string>
#include <unistd.h>
#include <utility>
#include <vector>

using namespace agent::spf::endpointregistry;
using tests::DataPair;
using tests::LogRecord;
using tests::Names;
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

struct Operation {
    std::string name;
    std::uint32_t severity;
    std::function<void(Endpoint&)> call;
};

const std::vector<Operation>& operations() {
    static const std::vector<Operation> all{
        {"addTrustees", 512, [](Endpoint& endpoint) { endpoint.addTrustees({"group"}); }},
        {"getTrustees", 512, [](Endpoint& endpoint) { endpoint.getTrustees(); }},
        {"removeTrustees", 256, [](Endpoint& endpoint) { endpoint.removeTrustees({"group"}); }},
        {"clearTrustees", 256, [](Endpoint& endpoint) { endpoint.clearTrustees(); }},
        {"setTrustees", 512, [](Endpoint& endpoint) { endpoint.setTrustees({"group"}); }},
    };
    return all;
}

void expectRefused(Endpoint& empty) {
    for (const Operation& operation : operations()) {
        const tests::LogCapture log;
        tests::expectThrown<std::invalid_argument>([&] { operation.call(empty); },
                                                   "Empty endpoints do not support trustees");
        const std::vector<LogRecord> expected{
            {tests::registryChannel, operation.severity,
             "Endpoint:" + operation.name + ":Not supported on empty object"}};
        EXPECT_EQ(log.records(), expected) << operation.name;
    }
    EXPECT_FALSE(empty);
}

} // namespace

TEST(EmptyEndpointTrustees, AreRefusedByEveryOperation) {
    Endpoint empty;
    expectRefused(empty);
}

TEST(EmptyEndpointTrustees, AreRefusedAlikeWhereNothingIsLogged) {
    Endpoint empty;
    const tests::LogCapture log("");
    for (const Operation& operation : operations()) {
        tests::expectThrown<std::invalid_argument>([&] { operation.call(empty); },
                                                   "Empty endpoints do not support trustees");
    }
    EXPECT_TRUE(log.records().empty());
}

TEST(EmptyEndpointTrustees, AreRefusedEvenWhereThereAreNoneToHandle) {
    Endpoint empty;
    EXPECT_THROW(empty.addTrustees({}), std::invalid_argument);
    EXPECT_THROW(empty.addTrustees({""}), std::invalid_argument);
    EXPECT_THROW(empty.removeTrustees({}), std::invalid_argument);
    EXPECT_THROW(empty.setTrustees({}), std::invalid_argument);
}

TEST(EmptyEndpointTrustees, AreRefusedByEndpointsThatWereResetOrMovedFrom) {
    Endpoint endpoint(data, tag, key);
    Endpoint other(std::move(endpoint));
    expectRefused(endpoint); // NOLINT(bugprone-use-after-move): a moved-from endpoint is empty
    other.reset();
    expectRefused(other);
}

namespace {

class EndpointTrusteesFailure : public tests::SharingTest {
protected:
    static void withEndpoint(const DataPair& pair, const std::function<void(Endpoint&)>& body) {
        tests::as(anna, [&] {
            Endpoint endpoint(pair, tag, key);
            body(endpoint);
            EXPECT_TRUE(endpoint);
        });
    }

    static std::string refusalOf(const std::string& trustee) {
        return "endpointregistry::checkTrustee: " + trustee +
               " is not among the allowed trustees of useranna. \nAllowed trustees list: , anna, "
               "family, friends";
    }
};

} // namespace

TEST_F(EndpointTrusteesFailure, IsToBelongToNoneOfThemOrToBeNoGroup) {
    withEndpoint(data, [](Endpoint& endpoint) {
        for (const std::string trustee : {"carl", "root", "Friends", "no such group"}) {
            tests::expectLogged(
                [&] {
                    tests::expectThrown<std::invalid_argument>(
                        [&] { endpoint.addTrustees({trustee}); }, refusalOf(trustee));
                },
                {});
        }
        EXPECT_EQ(endpoint.getTrustees(), Trustees());
        EXPECT_EQ(Endpoint::find(tag, key), data);
        EXPECT_TRUE(fs::is_empty("/home/Shared"));
        EXPECT_TRUE(tests::kernelSegments().empty());
    });
}

TEST_F(EndpointTrusteesFailure, HalfWayKeepsWhatWasSharedBefore) {
    withEndpoint(data, [](Endpoint& endpoint) {
        tests::expectThrown<std::invalid_argument>(
            [&] {
                endpoint.addTrustees({anna, "carl", friends});
            },
            refusalOf("carl"));
        EXPECT_EQ(endpoint.getTrustees(), Trustees{anna});
        EXPECT_EQ(Endpoint::find(tag, key, Trustees{anna}), data);
        EXPECT_EQ(Endpoint::find(tag, key, Trustees{friends}), std::nullopt);
        endpoint.addTrustees({anna, friends});
        EXPECT_EQ(endpoint.getTrustees(), (Trustees{anna, friends}));
    });
}

TEST_F(EndpointTrusteesFailure, OfSettingThemLeavesTheOldOnes) {
    withEndpoint(data, [](Endpoint& endpoint) {
        endpoint.addTrustees({friends});
        tests::expectThrown<std::invalid_argument>(
            [&] {
                endpoint.setTrustees({"carl", family});
            },
            refusalOf("carl"));
        EXPECT_EQ(endpoint.getTrustees(), Trustees{friends});
        tests::expectThrown<std::invalid_argument>(
            [&] {
                endpoint.setTrustees({family, "root"});
            },
            refusalOf("root"));
        EXPECT_EQ(endpoint.getTrustees(), (Trustees{family, friends}));
        EXPECT_EQ(Endpoint::find(tag, key, Trustees{friends}), data);
        EXPECT_EQ(Endpoint::find(tag, key, Trustees{family}), data);
    });
}

TEST_F(EndpointTrusteesFailure, IsDataWithAZeroByte) {
    const std::string zero("a\0b", 3);
    for (const DataPair& pair : {DataPair(zero, ""), DataPair("a", zero)}) {
        withEndpoint(pair, [&pair](Endpoint& endpoint) {
            for (const auto& share :
                 std::vector<std::function<void()>>{[&] { endpoint.addTrustees({friends}); },
                                                    [&] { endpoint.setTrustees({friends}); }}) {
                tests::expectReported<std::invalid_argument>(
                    share, "NamedStringArray new entry cannot contain zero bytes",
                    "NamedStringArray::insert(): The new entry cannot contain zero bytes.");
            }
            EXPECT_EQ(endpoint.getTrustees(), Trustees());
            EXPECT_EQ(Endpoint::find(tag, key), pair);
            EXPECT_EQ(tests::sharedEntries(friends), Names());
            EXPECT_TRUE(tests::kernelSegments().empty());
        });
    }
}

TEST_F(EndpointTrusteesFailure, IsAPrivateEntryThatIsGone) {
    withEndpoint(data, [](Endpoint& endpoint) {
        endpoint.addTrustees({friends});
        fs::remove(tests::segmentPath(tests::entryName(data, tag, key, ::getpid())));
        EXPECT_THROW(endpoint.addTrustees({family}), std::runtime_error);
        EXPECT_THROW(endpoint.setTrustees({family}), std::runtime_error);
        EXPECT_EQ(endpoint.getTrustees(), Trustees{friends});
        EXPECT_EQ(Endpoint::find(tag, key, Trustees{friends}), data);
        tests::expectNothingShared(family);
        // What can be shared no more can still be withdrawn.
        endpoint.removeTrustees({friends});
        EXPECT_EQ(endpoint.getTrustees(), Trustees());
        tests::expectNothingShared(friends);
    });
}

TEST_F(EndpointTrusteesFailure, IsNoPrivateEntryThatIsGoneWhereNothingNewIsShared) {
    withEndpoint(data, [](Endpoint& endpoint) {
        endpoint.addTrustees({friends, family});
        fs::remove(tests::segmentPath(tests::entryName(data, tag, key, ::getpid())));
        endpoint.addTrustees({});
        endpoint.addTrustees({""});
        endpoint.addTrustees({friends});
        endpoint.setTrustees({"", friends, family});
        EXPECT_EQ(endpoint.getTrustees(), (Trustees{family, friends}));
        endpoint.setTrustees({friends});
        EXPECT_EQ(endpoint.getTrustees(), Trustees{friends});
        EXPECT_THROW(endpoint.addTrustees({friends, family}), std::runtime_error);
        EXPECT_EQ(Endpoint::find(tag, key, Trustees{friends}), data);
        endpoint.setTrustees({});
        EXPECT_EQ(endpoint.getTrustees(), Trustees());
        tests::expectNothingShared(friends);
        tests::expectNothingShared(family);
        EXPECT_THROW(endpoint.addTrustees({friends}), std::runtime_error);
        tests::expectNothingShared(friends);
    });
}

TEST_F(EndpointTrusteesFailure, IsAMissingSharedFolder) {
    fs::remove_all("/home/Shared");
    withEndpoint(data, [](Endpoint& endpoint) {
        tests::expectReported<std::runtime_error>(
            [&] { endpoint.addTrustees({friends}); }, "Error: /home/Shared folder does not exist",
            "getParentPath(): /home/Shared folder does not exist");
        EXPECT_EQ(endpoint.getTrustees(), Trustees());
        EXPECT_EQ(Endpoint::find(tag, key), data);
    });
}

TEST_F(EndpointTrusteesFailure, IsAProcessInNoGroup) {
    EXPECT_EQ(tests::runInChild([] {
                  ASSERT_EQ(::setgroups(0, nullptr), 0);
                  Endpoint endpoint(data, tag, key);
                  tests::expectThrown<std::invalid_argument>(
                      [&] { endpoint.addTrustees({friends}); },
                      "endpointregistry::checkTrustee: friends is not among the allowed trustees "
                      "of userroot. \nAllowed trustees list: ");
                  EXPECT_EQ(endpoint.getTrustees(), Trustees());
              }),
              0);
}
