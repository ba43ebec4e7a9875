#include "endpointregistry/NamedStringArray.h"

#include "tests/endpointregistry/LockedFileTools.h"
#include "tests/endpointregistry/LoggersReportedFailure.h"
#include "tests/endpointregistry/NamedStringArrayTools.h"
#include "tests/support/ForkedProcess.h"

#include <cstdint>
#include <gtest/gtest.h>
#include <stdexcept>
#include <string>
#include <sys/wait.h>
#include <unistd.h>

using tests::BaseContent;
using tests::Channel;
using tests::Entries;
using tests::ForkedProcess;

namespace {

const std::string inconsistent =
    "System Error: Endpoint::NamedStringArray::initializeBase: Inconsistent initial state";
const std::string inconsistentLogged =
    "NamedStringArray::initializeBase: Inconsistent initial state of base.";

std::uint32_t ownId() {
    return static_cast<std::uint32_t>(::getpid());
}

class NamedStringArrayBase : public tests::NamedStringArrayTest {
protected:
    bool initialize() {
        auto base = table.findBase();
        return array.initializeBase(base);
    }

    /// Expects that the claim on initialisation counts for nothing.
    void expectCleared(std::uint32_t claim) {
        table.plantBase({.initializer = claim});
        EXPECT_FALSE(initialize());
        EXPECT_EQ(table.base(), BaseContent());
        EXPECT_TRUE(initialize());
        EXPECT_EQ(table.base().initializer, ownId());
        array.insert("a");
        EXPECT_EQ(array.filter({}), Entries{{"a"}});
        table.remove();
    }
};

/// Waits for a child to end, and leaves it to be reaped.
void waitUntilDead(const ForkedProcess& child) {
    siginfo_t information{};
    ASSERT_EQ(::waitid(P_PID, static_cast<id_t>(child.pid()), &information, WEXITED | WNOWAIT), 0);
}

} // namespace

TEST_F(NamedStringArrayBase, IsInitialisedToGenerationOneWithoutRows) {
    table.plantBase({});
    EXPECT_TRUE(initialize());
    const BaseContent expected{.initializer = ownId(), .flags = 1, .generation = {1, 0}};
    EXPECT_EQ(table.base(), expected);
    EXPECT_EQ(tests::kernelSegments().size(), 1U);
}

TEST_F(NamedStringArrayBase, StaysWhenItsMakerInitialisesIt) {
    {
        auto base = agent::spf::sharedmemory::SharedMemory::create(
            table.baseName(), 56, "",
            agent::spf::sharedmemory::SharedMemory::ImplementationSpecifications::SysV);
        EXPECT_TRUE(array.initializeBase(base));
    }
    EXPECT_TRUE(table.hasBase());
}

TEST_F(NamedStringArrayBase, IsInitialisedOnce) {
    table.plantBase({});
    ASSERT_TRUE(initialize());
    array.insert("a");
    const BaseContent before = table.base();
    EXPECT_TRUE(initialize());
    EXPECT_EQ(table.base(), before);
}

TEST_F(NamedStringArrayBase, KeepsTheClaimOfWhoInitialisedItDeadOrAlive) {
    array.insert("a");
    BaseContent content = table.base();
    content.initializer = 0x7fffffff;
    table.setBase(content);
    EXPECT_TRUE(initialize());
    EXPECT_EQ(table.base(), content);
}

TEST_F(NamedStringArrayBase, KeepsItsLockFile) {
    table.plantBase({});
    ASSERT_TRUE(initialize());
    EXPECT_TRUE(
        agent::spf::endpointregistry::LockedFile::exists("baseLock", "qvNamedStringArray", ""));
}

TEST_F(NamedStringArrayBase, InitialisesTheDescriptorThatIsCurrent) {
    table.plantBase({.index = 1});
    EXPECT_TRUE(initialize());
    const BaseContent expected{
        .initializer = ownId(), .flags = 1, .index = 1, .generation = {0, 1}};
    EXPECT_EQ(table.base(), expected);
}

TEST_F(NamedStringArrayBase, LosesTheClaimsOfTheDead) {
    ForkedProcess child([](Channel&) {});
    const auto claim = static_cast<std::uint32_t>(child.pid());
    EXPECT_EQ(child.waitForExit(), 0);
    expectCleared(claim);
}

TEST_F(NamedStringArrayBase, LosesTheClaimsOfTheDeadThatNobodyReaped) {
    const ForkedProcess child([](Channel&) {});
    waitUntilDead(child);
    expectCleared(static_cast<std::uint32_t>(child.pid()));
}

TEST_F(NamedStringArrayBase, LosesTheClaimsOfWhatIsNoProcess) {
    expectCleared(0x7fffffff);
    expectCleared(0xffffffff);
    expectCleared(0x80000000);
}

TEST_F(NamedStringArrayBase, KeepsTheClaimsOfTheLiving) {
    ForkedProcess child([](Channel& test) { test.receive(); });
    const BaseContent claimed{.initializer = static_cast<std::uint32_t>(child.pid())};
    table.plantBase(claimed);
    EXPECT_FALSE(initialize());
    EXPECT_FALSE(initialize());
    EXPECT_EQ(table.base(), claimed);
    child.kill();
    EXPECT_FALSE(initialize());
    EXPECT_TRUE(initialize());
}

TEST_F(NamedStringArrayBase, IsInitialisedByInsertionUnderTheLockWhoeverHasClaimedIt) {
    ForkedProcess claimant([](Channel& test) { test.receive(); });
    table.plantBase({.initializer = static_cast<std::uint32_t>(claimant.pid())});
    array.insert("a");
    EXPECT_EQ(array.filter({}), Entries{{"a"}});
    EXPECT_TRUE(initialize());
    EXPECT_EQ(table.base().initializer, ownId());
    claimant.kill();
}

TEST_F(NamedStringArrayBase, IsRefusedWhenItsFlagsAreSetBeforeItIsInitialised) {
    table.plantBase({.flags = 2});
    tests::expectReported<std::runtime_error>([this] { initialize(); }, inconsistent,
                                              inconsistentLogged);
    EXPECT_FALSE(tests::isHeld(tests::privateFolder("qvNamedStringArray") + "baseLock"));
}

TEST_F(NamedStringArrayBase, IsRefusedByInsertionForTheSameReason) {
    table.plantBase({.flags = 0xfe});
    tests::expectReported<std::runtime_error>([this] { array.insert("a"); }, inconsistent,
                                              inconsistentLogged);
    EXPECT_EQ(array.filter({}), Entries());
}

TEST_F(NamedStringArrayBase, IsRefusedAgainToWhomItWasRefused) {
    table.plantBase({.flags = 2});
    EXPECT_THROW(initialize(), std::runtime_error);
    EXPECT_THROW(initialize(), std::runtime_error);
}

TEST_F(NamedStringArrayBase, IsRefusedToOthersWhileTheFirstWhomItWasRefusedLives) {
    table.plantBase({.flags = 2});
    ForkedProcess first([this](Channel& test) {
        EXPECT_THROW(array.insert("a"), std::runtime_error);
        test.send("refused");
        test.receive();
    });
    ASSERT_EQ(first.channel().receive(), "refused");
    bool isRefused = false;
    for (int attempt = 0; attempt < 1000 && !isRefused; ++attempt) {
        try {
            initialize();
        } catch (const std::runtime_error&) {
            isRefused = true;
        }
    }
    EXPECT_TRUE(isRefused) << "whoever inserts waits for the first to end";
    first.channel().send("end");
    EXPECT_EQ(first.waitForExit(), 0);
}

TEST_F(NamedStringArrayBase, IsTakenOverFromAnInitialiserThatDiedAfterItsClaimAndTheGeneration) {
    table.plantBase({.initializer = 0x7fffffff, .generation = {1, 0}});
    array.insert("a");
    EXPECT_EQ(array.filter({}), Entries{{"a"}});
    EXPECT_EQ(table.generation(), 2U);
}
