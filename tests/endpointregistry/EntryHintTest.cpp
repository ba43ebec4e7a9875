#include "endpointregistry/detail/EntryHint.h"

#include "endpointregistry/EntryName.h"
#include "tests/endpointregistry/EndpointHintTools.h"
#include "tests/endpointregistry/EndpointTools.h"
#include "tests/endpointregistry/LockedFileTools.h"
#include "tests/support/ForkedProcess.h"

#include <climits>
#include <filesystem>
#include <gtest/gtest.h>
#include <optional>
#include <string>
#include <type_traits>
#include <utility>
#include <vector>

using namespace agent::spf::endpointregistry;

static_assert(std::is_nothrow_move_constructible_v<PublishedHint>);
static_assert(std::is_nothrow_move_assignable_v<PublishedHint>);
static_assert(!std::is_copy_constructible_v<PublishedHint>);

namespace {

namespace fs = std::filesystem;
using Strings = std::vector<std::string>;

const std::string tag = "tag";
const std::string key = "key";
const std::string base = tests::privateBase() + "/";

EntryHint hintOf(const std::string& selectedKey) {
    return {base, getGroupTagPrefix(tag), getSelectedKeySubstring(selectedKey)};
}

class EntryHintTest : public tests::RegistryTest {
protected:
    void SetUp() override {
        RegistryTest::SetUp();
        tests::provideEntryFolder();
    }
};

} // namespace

TEST_F(EntryHintTest, SaysWhatWasWrittenLast) {
    const EntryHint hint = hintOf(key);
    EXPECT_EQ(hint.read(), std::nullopt);
    EXPECT_TRUE(hint.write("first"));
    EXPECT_EQ(hint.read(), "first");
    EXPECT_EQ(tests::hintText(tag, key), "first");
    EXPECT_TRUE(hint.write("second"));
    EXPECT_EQ(hint.read(), "second");
    hint.remove();
    EXPECT_EQ(hint.read(), std::nullopt);
}

TEST_F(EntryHintTest, IsCutWhereItIsTooLongForAName) {
    const EntryHint hint = hintOf(key);
    ASSERT_TRUE(hint.write(std::string(NAME_MAX, 'a')));
    EXPECT_EQ(hint.read(), std::string(NAME_MAX, 'a'));
    ASSERT_TRUE(hint.write(std::string(2000, 'a')));
    EXPECT_EQ(hint.read(), std::string(NAME_MAX + 1, 'a'));
    hint.removeIfItSays(*hint.read());
    EXPECT_EQ(tests::hintFiles(), Strings());
}

TEST_F(EntryHintTest, StaysWhereItSaysSomethingElse) {
    const EntryHint hint = hintOf(key);
    ASSERT_TRUE(hint.write("text"));
    hint.removeIfItSays("other");
    EXPECT_EQ(hint.read(), "text");
    hint.removeIfItSays("text");
    EXPECT_EQ(hint.read(), std::nullopt);
}

TEST_F(EntryHintTest, TellsThatItCouldNotBeWritten) {
    tests::provideHintFolder();
    fs::create_directory(tests::hintPath(tag, key));
    EXPECT_FALSE(hintOf(key).write("text"));
    fs::remove(tests::hintPath(tag, key));
    fs::remove(tests::hintFolder());
    fs::remove(tests::entryFolder());
    fs::remove(tests::privateBase());
    EXPECT_FALSE(hintOf(key).write("text"));
}

TEST_F(EntryHintTest, OfAnEntryIsFoundByItsNameAlone) {
    const std::string name = tests::entryName({"ab", "c"}, tag, key, 1);
    ASSERT_TRUE(hintOf(key).write(name));
    ASSERT_TRUE(hintOf("other key").write(name));
    EntryHint::removeThatOf(name, base);
    EXPECT_EQ(hintOf(key).read(), std::nullopt);
    EXPECT_EQ(hintOf("other key").read(), name);
    hintOf("other key").remove();
}

TEST_F(EntryHintTest, OfAStrangeNameIsNone) {
    ASSERT_TRUE(hintOf(key).write("text"));
    for (const char* const name : {"", "k", "l", "qvER", "qvERk", "qvERl", "qvERkl", "qvERlk",
                                   "xqvERabkcl3p1v0", "qvERabkc", "qvERk1l3p1v0"}) {
        EntryHint::removeThatOf(name, base);
    }
    EntryHint::removeThatOf("qvER" + std::string(200, 'a') + "kbl1p1v0", base);
    EntryHint::removeThatOf("qvER" + std::string(200, 'k') + "kbl1p1v0", base);
    EXPECT_EQ(tests::hintFiles().size(), 1U);
    hintOf(key).remove();
}

TEST_F(EntryHintTest, GoesWithItsOwner) {
    {
        const PublishedHint owner(hintOf(key), "name");
        EXPECT_EQ(hintOf(key).read(), "name");
    }
    EXPECT_EQ(tests::hintFiles(), Strings());
}

TEST_F(EntryHintTest, MovesToAnotherOwner) {
    PublishedHint first(hintOf(key), "name");
    {
        PublishedHint second(std::move(first));
        EXPECT_EQ(hintOf(key).read(), "name");
        PublishedHint third(hintOf("other key"), "other name");
        third = std::move(second);
        EXPECT_EQ(hintOf("other key").read(), std::nullopt);
        EXPECT_EQ(hintOf(key).read(), "name");
        PublishedHint& same = third;
        third = std::move(same);
        EXPECT_EQ(hintOf(key).read(), "name");
    }
    EXPECT_EQ(tests::hintFiles(), Strings());
}

TEST_F(EntryHintTest, IsNotRemovedByACopyInAForkedChild) {
    std::optional<PublishedHint> owner(std::in_place, hintOf(key), "name");
    EXPECT_EQ(tests::runInChild([&] { owner.reset(); }), 0);
    EXPECT_EQ(hintOf(key).read(), "name");
}
