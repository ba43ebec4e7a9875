#include "tests/platform/SharedMemoryTools.h"

#include <gtest/gtest.h>
#include <stdexcept>
#include <string>
#include <type_traits>
#include <utility>

namespace {

using tests::bytesOf;
using tests::create;
using tests::createOrFind;
using tests::find;
using tests::SharedMemory;
using tests::someSize;

class SharedMemoryLife : public tests::SharedMemoryTest {};

TEST_F(SharedMemoryLife, BeginsWithACreatorWhoseBytesAreZero) {
    constexpr std::size_t size = 100001;
    const SharedMemory memory = create("name", size);
    EXPECT_TRUE(memory.isAttached());
    EXPECT_TRUE(memory.isCreator());
    EXPECT_EQ(memory.getTrustee(), "");
    EXPECT_TRUE(tests::isZero(bytesOf(memory, size)));
    bytesOf(memory, size).back() = 1;
}

TEST_F(SharedMemoryLife, HasItsBytesAlignedToAPage) {
    const SharedMemory memory = create("name");
    EXPECT_EQ(reinterpret_cast<std::uintptr_t>(memory.getPointer()) % 4096, 0U);
}

TEST_F(SharedMemoryLife, IsShownToThoseWhoFindIt) {
    const SharedMemory creator = create("name");
    const SharedMemory finder = find("name");
    ASSERT_TRUE(finder.isAttached());
    EXPECT_FALSE(finder.isCreator());
    bytesOf(creator)[someSize - 1] = 7;
    EXPECT_EQ(bytesOf(finder)[someSize - 1], 7);
    bytesOf(finder)[0] = 8;
    EXPECT_EQ(bytesOf(creator)[0], 8);
}

TEST_F(SharedMemoryLife, IsCreatedOnlyOnce) {
    const SharedMemory first = create("name");
    bytesOf(first)[0] = 7;
    {
        const SharedMemory second = create("name");
        EXPECT_FALSE(second.isAttached());
        EXPECT_FALSE(second.isCreator());
        EXPECT_EQ(second.getPointer(), nullptr);
        EXPECT_EQ(second.getTrustee(), "");
    }
    EXPECT_FALSE(create("name", someSize + 1).isAttached());
    EXPECT_EQ(bytesOf(find("name"))[0], 7);
}

TEST_F(SharedMemoryLife, IsNotFoundBeforeAndAfter) {
    EXPECT_FALSE(find("name").isAttached());
    { const SharedMemory memory = create("name"); }
    EXPECT_FALSE(find("name").isAttached());
    EXPECT_EQ(find("name").getPointer(), nullptr);
}

TEST_F(SharedMemoryLife, IsFoundAtItsSizeAndBelow) {
    // The second name is one that no file can have.
    for (const std::string name : {"name", "na/me"}) {
        const SharedMemory memory = create(name);
        EXPECT_TRUE(find(name, 1).isAttached()) << name;
        EXPECT_TRUE(find(name, someSize - 1).isAttached()) << name;
        EXPECT_TRUE(find(name, someSize).isAttached()) << name;
        EXPECT_FALSE(find(name, someSize + 1).isAttached()) << name;
        EXPECT_FALSE(find(name, someSize * 100).isAttached()) << name;
        EXPECT_FALSE(find(name, SIZE_MAX).isAttached()) << name;
    }
}

TEST_F(SharedMemoryLife, BeginsAgainWithZeros) {
    {
        const SharedMemory memory = create("name");
        std::ranges::fill(bytesOf(memory), std::uint8_t{7});
    }
    EXPECT_TRUE(tests::isZero(bytesOf(create("name"))));
}

TEST_F(SharedMemoryLife, LastsAsLongAsItsCreatorWhateverFindersDo) {
    const SharedMemory creator = create("name");
    { const SharedMemory finder = find("name"); }
    EXPECT_TRUE(find("name").isAttached());
}

TEST_F(SharedMemoryLife, LeavesTheBytesToThoseAttachedWhenItEnds) {
    SharedMemory creator = create("name");
    bytesOf(creator)[0] = 7;
    const SharedMemory finder = find("name");
    { const SharedMemory ended = std::move(creator); }
    EXPECT_FALSE(find("name").isAttached());
    EXPECT_TRUE(finder.isAttached());
    EXPECT_EQ(bytesOf(finder)[0], 7);
}

TEST_F(SharedMemoryLife, IsCreatedOrFoundAsItComes) {
    const SharedMemory first = createOrFind("name");
    EXPECT_TRUE(first.isCreator());
    bytesOf(first)[0] = 7;
    const SharedMemory second = createOrFind("name");
    EXPECT_TRUE(second.isAttached());
    EXPECT_FALSE(second.isCreator());
    EXPECT_EQ(bytesOf(second)[0], 7);
}

TEST_F(SharedMemoryLife, CannotBeCreatedOrFoundWhenTheOneThereIsSmaller) {
    const SharedMemory memory = create("name");
    EXPECT_THROW(createOrFind("name", someSize + 1), std::runtime_error);
    EXPECT_TRUE(find("name").isAttached());
}

TEST_F(SharedMemoryLife, EndsPersistentOnlyWhenItIsMarked) {
    {
        SharedMemory memory = create("name");
        bytesOf(memory)[0] = 7;
        memory.makePersistent();
        EXPECT_TRUE(memory.isCreator());
    }
    {
        SharedMemory finder = find("name");
        ASSERT_TRUE(finder.isAttached());
        EXPECT_EQ(bytesOf(finder)[0], 7);
        finder.markForDeletion();
        EXPECT_TRUE(find("name").isAttached());
    }
    EXPECT_FALSE(find("name").isAttached());
}

TEST_F(SharedMemoryLife, EndsWithAMarkedFinderBeforeItsCreator) {
    const SharedMemory creator = create("name");
    {
        SharedMemory finder = find("name");
        finder.markForDeletion();
    }
    EXPECT_FALSE(find("name").isAttached());
    EXPECT_TRUE(creator.isAttached());
}

TEST_F(SharedMemoryLife, EndsWhenItsPersistentCreatorIsMarked) {
    {
        SharedMemory memory = create("name");
        memory.makePersistent();
        memory.markForDeletion();
    }
    EXPECT_FALSE(find("name").isAttached());
}

TEST_F(SharedMemoryLife, IsNotEndedByAHandleOfAnEarlierSegmentOfItsName) {
    SharedMemory earlier = create("name");
    SharedMemory earlierFinder = find("name");
    earlierFinder.markForDeletion();
    {
        SharedMemory remover = find("name");
        remover.markForDeletion();
    }
    const SharedMemory later = create("name");
    ASSERT_TRUE(later.isCreator());
    { const SharedMemory ended = std::move(earlier); }
    { const SharedMemory ended = std::move(earlierFinder); }
    EXPECT_TRUE(find("name").isAttached());
}

TEST_F(SharedMemoryLife, TakesNoNoticeOfADetachedHandle) {
    const SharedMemory creator = create("name");
    {
        SharedMemory detached = create("name");
        detached.makePersistent();
        detached.markForDeletion();
    }
    EXPECT_TRUE(find("name").isAttached());
}

class SharedMemoryMove : public tests::SharedMemoryTest {};

static_assert(!std::is_copy_constructible_v<SharedMemory>);
static_assert(!std::is_copy_assignable_v<SharedMemory>);
static_assert(std::is_nothrow_move_constructible_v<SharedMemory>);
static_assert(std::is_nothrow_move_assignable_v<SharedMemory>);

TEST_F(SharedMemoryMove, HandsTheSegmentOn) {
    SharedMemory from = create("name");
    const void* const pointer = from.getPointer();
    {
        const SharedMemory into = std::move(from);
        EXPECT_TRUE(into.isCreator());
        EXPECT_EQ(into.getPointer(), pointer);
        // NOLINTBEGIN(bugprone-use-after-move,clang-analyzer-cplusplus.Move): what moved-from
        // handles promise
        EXPECT_FALSE(from.isAttached());
        EXPECT_FALSE(from.isCreator());
        EXPECT_EQ(from.getPointer(), nullptr);
        EXPECT_EQ(from.getTrustee(), "");
        // NOLINTEND(bugprone-use-after-move,clang-analyzer-cplusplus.Move)
        EXPECT_TRUE(find("name").isAttached());
    }
    EXPECT_FALSE(find("name").isAttached());
}

TEST_F(SharedMemoryMove, LetsTheOverwrittenSegmentGo) {
    SharedMemory memory = create("first");
    memory = create("second");
    EXPECT_FALSE(find("first").isAttached());
    EXPECT_TRUE(find("second").isAttached());
    EXPECT_TRUE(memory.isCreator());
}

TEST_F(SharedMemoryMove, KeepsMarksWithTheirSegments) {
    SharedMemory persistent = create("persistent");
    persistent.makePersistent();
    SharedMemory marked = find("persistent");
    SharedMemory passing = create("passing");
    marked.markForDeletion();
    passing = std::move(persistent);
    EXPECT_FALSE(find("passing").isAttached());
    EXPECT_TRUE(find("persistent").isAttached());
    passing = std::move(marked);
    EXPECT_TRUE(find("persistent").isAttached());
    passing = find("absent");
    EXPECT_FALSE(find("persistent").isAttached());
    EXPECT_FALSE(passing.isAttached());
}

} // namespace
