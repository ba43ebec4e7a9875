#include "endpointregistry/NamedStringArray.h"

#include "tests/endpointregistry/LockedFileTools.h"
#include "tests/endpointregistry/NamedStringArrayTools.h"
#include "tests/support/ForkedProcess.h"

#include <cstdint>
#include <filesystem>
#include <fstream>
#include <gtest/gtest.h>
#include <optional>
#include <stdexcept>
#include <string>
#include <sys/types.h>
#include <unistd.h>

using tests::BaseContent;
using tests::Channel;
using tests::Entries;
using tests::ForkedProcess;

namespace {

/// Claims on the initialisation of a table that living processes never fulfil: the id in them came
/// to stand for another process, or somebody wrote it there.
class NamedStringArrayClaims : public tests::NamedStringArrayTest {
protected:
    void expectNotWaitedForWithoutEnd(pid_t claimant) {
        table.plantBase({.initializer = static_cast<std::uint32_t>(claimant)});
        array.insert("a");
        EXPECT_EQ(array.filter({}), Entries{{"a"}});
        table.remove();
    }
};

} // namespace

TEST_F(NamedStringArrayClaims, OfThisVeryProcessAreTakenBack) {
    expectNotWaitedForWithoutEnd(::getpid());
}

TEST_F(NamedStringArrayClaims, OfAProcessThatKnowsNothingOfItAreTakenBack) {
    ForkedProcess stranger([](Channel& test) { test.receive(); });
    expectNotWaitedForWithoutEnd(stranger.pid());
    // It may be any process, whoever runs it.
    expectNotWaitedForWithoutEnd(1);
    stranger.channel().send("end");
    EXPECT_EQ(stranger.waitForExit(), 0);
}

TEST_F(NamedStringArrayClaims, ThatWereTakenBackBeforeTheLockWasFreeInitialiseNothing) {
    table.plantBase({});
    std::optional lock(table.lock());
    ForkedProcess claimant([this](Channel& test) {
        auto base = table.findBase();
        EXPECT_FALSE(array.initializeBase(base));
        test.send("gave up");
        test.receive();
        EXPECT_TRUE(array.initializeBase(base));
    });
    const BaseContent claimed{.initializer = static_cast<std::uint32_t>(claimant.pid())};
    tests::waitUntil([&] { return table.base() == claimed; }, "a claim");
    table.setBase({});
    lock.reset();
    ASSERT_EQ(claimant.channel().receive(), "gave up");
    EXPECT_EQ(table.base(), BaseContent());
    claimant.channel().send("once more");
    EXPECT_EQ(claimant.waitForExit(), 0);
    const BaseContent initialised{
        .initializer = claimed.initializer, .flags = 1, .generation = {1, 0}};
    EXPECT_EQ(table.base(), initialised);
}

TEST_F(NamedStringArrayClaims, ThatWereTakenBackAndMadeByAnotherInitialiseNothingEither) {
    table.plantBase({});
    std::optional lock(table.lock());
    ForkedProcess claimant([this](Channel&) {
        auto base = table.findBase();
        EXPECT_FALSE(array.initializeBase(base));
    });
    const BaseContent claimed{.initializer = static_cast<std::uint32_t>(claimant.pid())};
    tests::waitUntil([&] { return table.base() == claimed; }, "a claim");
    const BaseContent others{.initializer = static_cast<std::uint32_t>(::getpid())};
    table.setBase(others);
    lock.reset();
    EXPECT_EQ(claimant.waitForExit(), 0);
    EXPECT_EQ(table.base(), others);
}

TEST_F(NamedStringArrayClaims, ThatAnotherThreadHasFulfilledMeanwhileAreFulfilled) {
    table.plantBase({});
    std::optional lock(table.lock());
    ForkedProcess claimant([this](Channel&) {
        auto base = table.findBase();
        EXPECT_TRUE(array.initializeBase(base));
    });
    const auto claimantsId = static_cast<std::uint32_t>(claimant.pid());
    const BaseContent claimed{.initializer = claimantsId};
    tests::waitUntil([&] { return table.base() == claimed; }, "a claim");
    // It took the claim back, claimed in the name of the same process, and was done first.
    const BaseContent fulfilled{.initializer = claimantsId, .flags = 1, .generation = {1, 0}};
    table.setBase(fulfilled);
    lock.reset();
    EXPECT_EQ(claimant.waitForExit(), 0);
    EXPECT_EQ(table.base(), fulfilled);
    array.insert("a");
    EXPECT_EQ(array.filter({}), Entries{{"a"}});
}

TEST_F(NamedStringArrayClaims, AreGivenUpWhereTheLockIsRefused) {
    { const auto lock = table.lock(); }
    const std::string folder = tests::privateBase() + "/qvNamedStringArray";
    std::filesystem::remove_all(folder);
    std::ofstream(folder) << "no folder";
    table.plantBase({});
    EXPECT_THROW(array.insert("a"), std::runtime_error);
    EXPECT_EQ(table.base(), BaseContent());
    std::filesystem::remove(folder);
    array.insert("a");
    EXPECT_EQ(array.filter({}), Entries{{"a"}});
}
