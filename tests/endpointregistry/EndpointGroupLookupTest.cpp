#include "endpointregistry/Endpoint.h"

#include "endpointregistry/LockedFile.h"
#include "tests/endpointregistry/EndpointTools.h"
#include "tests/endpointregistry/FoldersRefusedCalls.h"
#include "tests/endpointregistry/LockedFileTools.h"
#include "tests/endpointregistry/LoggersReportedFailure.h"
#include "tests/support/ForkedProcess.h"
#include "tests/support/TestAccounts.h"

#include <cerrno>
#include <filesystem>
#include <functional>
#include <grp.h>
#include <gtest/gtest.h>
#include <optional>
#include <set>
#include <stdexcept>
#include <string>
#include <sys/syscall.h>
#include <system_error>
#include <unistd.h>
#include <vector>

using namespace agent::spf::endpointregistry;
using tests::DataPair;
using tests::DataPairs;

namespace {

namespace fs = std::filesystem;
namespace accounts = tests::accounts;
using Trustees = std::set<std::string>;

const std::string tag = "tag";
const std::string key = "key";
const DataPair data("1", "");

void setGroups(const std::vector<gid_t>& groups) {
    if (::setgroups(groups.size(), groups.data()) != 0) {
        throw std::system_error(errno, std::generic_category(), "setgroups");
    }
}

/// A lookup from all trustees by a process that is in some groups.
class LookupFromAllTrustees : public tests::RegistryTest {
protected:
    void SetUp() override {
        RegistryTest::SetUp();
        if (!accounts::available()) {
            GTEST_SKIP() << accounts::whyNot;
        }
        fs::remove_all("/home/Shared");
    }
    void TearDown() override {
        fs::remove_all("/home/Shared");
        RegistryTest::TearDown();
    }

    static void runIn(const std::vector<gid_t>& groups, const std::function<void()>& body) {
        EXPECT_EQ(tests::runInChild([&] {
                      setGroups(groups);
                      body();
                  }),
                  0);
    }
    static void runAsFriend(const std::function<void()>& body) {
        runIn({accounts::groupId(accounts::friends)}, body);
    }
};

void expectSharedFolderMissing(const std::function<void()>& lookup) {
    tests::expectReported<std::runtime_error>(
        lookup, "Error: /home/Shared folder does not exist",
        "getParentPath(): /home/Shared folder does not exist");
}

} // namespace

TEST_F(LookupFromAllTrustees, SearchesOwnEntriesWhereTheProcessIsInNoGroup) {
    runIn({}, [] {
        const Endpoint endpoint(data, tag, key);
        EXPECT_EQ(Endpoint::findFromAllTrustees(tag, key), data);
        EXPECT_EQ(Endpoint::findFromAllTrustees(tag, "other key"), std::nullopt);
        EXPECT_EQ(Endpoint::filterFromAllTrustees(tag), DataPairs{data});
        EXPECT_EQ(Endpoint::filterFromAllTrustees(""), DataPairs());
        EXPECT_EQ(Endpoint::listFromAllTrustees(), DataPairs{data});
    });
}

TEST_F(LookupFromAllTrustees, FailsWhereThereAreGroupsButNoFolderForWhatTheyShare) {
    runAsFriend([] {
        const Endpoint endpoint(data, tag, key);
        expectSharedFolderMissing([] { Endpoint::listFromAllTrustees(); });
        expectSharedFolderMissing([] { Endpoint::filterFromAllTrustees(tag); });
        expectSharedFolderMissing([] { Endpoint::findFromAllTrustees(tag, "other key"); });
        expectSharedFolderMissing([] { Endpoint::list(Trustees{"friends"}); });
    });
}

TEST_F(LookupFromAllTrustees, FindsAnOwnEntryBeforeItLooksForSharedOnes) {
    runAsFriend([] {
        const Endpoint endpoint(data, tag, key);
        EXPECT_EQ(Endpoint::findFromAllTrustees(tag, key), data);
    });
}

TEST_F(LookupFromAllTrustees, FindsOwnEntriesWhereNobodyEverShared) {
    tests::provideSharedFolder();
    runAsFriend([] {
        const Endpoint endpoint(data, tag, key);
        EXPECT_EQ(Endpoint::findFromAllTrustees(tag, key), data);
        EXPECT_EQ(Endpoint::findFromAllTrustees(tag, "other key"), std::nullopt);
        EXPECT_EQ(Endpoint::filterFromAllTrustees(tag), DataPairs{data});
        EXPECT_EQ(Endpoint::listFromAllTrustees(), DataPairs{data});
        EXPECT_EQ(Endpoint::list(Trustees{"friends"}), DataPairs());
    });
    EXPECT_TRUE(fs::is_empty("/home/Shared"));
}

TEST_F(LookupFromAllTrustees, ReadsAnEntryWithoutDataAsNothing) {
    tests::provideSharedFolder();
    runAsFriend([] {
        const std::string name = tests::entryName({"shared", ""}, tag, "shared key", ::getpid());
        const LockedFile shared =
            LockedFile::createAndTryLock(name, "qvEndpointRegistry", accounts::friends);
        ASSERT_TRUE(shared.isLocked());
        const Trustees friends{accounts::friends};
        EXPECT_EQ(Endpoint::find(tag, "shared key", friends), std::nullopt);
        EXPECT_EQ(Endpoint::filter(tag, friends), DataPairs());
        EXPECT_EQ(Endpoint::list(friends), DataPairs());
        const Endpoint endpoint(data, tag, key);
        EXPECT_EQ(Endpoint::listFromAllTrustees(), DataPairs{data});
        EXPECT_EQ(Endpoint::findFromAllTrustees(tag, "shared key"), std::nullopt);
        EXPECT_TRUE(LockedFile::exists(name, "qvEndpointRegistry", accounts::friends));
    });
}

TEST_F(LookupFromAllTrustees, DoesNotTakeAnOwnEntryForOneOfAGroup) {
    tests::provideSharedFolder();
    runAsFriend([] {
        const Endpoint endpoint(data, tag, key);
        EXPECT_EQ(Endpoint::find(tag, key, Trustees{accounts::friends}), std::nullopt);
        EXPECT_EQ(Endpoint::find(tag, key, Trustees{"", accounts::friends}), data);
        EXPECT_EQ(Endpoint::list(Trustees{"", accounts::friends}), DataPairs{data});
    });
}

TEST_F(LookupFromAllTrustees, FailsWhereTheSystemDoesNotTellTheGroups) {
    EXPECT_EQ(tests::runInChild([] {
                  tests::refuseCalls({SYS_getgroups}, EPERM);
                  const Endpoint endpoint(data, tag, key);
                  EXPECT_THROW(Endpoint::findFromAllTrustees(tag, key), std::length_error);
                  EXPECT_THROW(Endpoint::filterFromAllTrustees(tag), std::length_error);
                  EXPECT_THROW(Endpoint::listFromAllTrustees(), std::length_error);
                  EXPECT_EQ(Endpoint::find(tag, key), data);
                  EXPECT_EQ(Endpoint::list(), DataPairs{data});
              }),
              0);
}
