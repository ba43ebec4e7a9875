#include "tests/platform/SharedMemoryContract.h"

#include <gtest/gtest.h>
#include <utility>

namespace {

using tests::bytesOf;
using tests::SharedMemory;
using tests::someSize;

class SharedMemoryHandleContract : public tests::SharedMemoryContract {};

TEST_P(SharedMemoryHandleContract, KeepsASegmentForAsLongAsItsCreatorWhateverFindersDo) {
    const SharedMemory creator = create("name");
    { const SharedMemory finder = find("name"); }
    { const SharedMemory finder = createOrFind("name"); }
    EXPECT_TRUE(creator.isStillNamed());
    EXPECT_TRUE(find("name").isAttached());
}

TEST_P(SharedMemoryHandleContract, LeavesItsBytesToThoseAttachedWhenASegmentEnds) {
    SharedMemory creator = create("name");
    bytesOf(creator)[0] = 7;
    const SharedMemory finder = find("name");
    { const SharedMemory ended = std::move(creator); }
    EXPECT_FALSE(find("name").isAttached());
    EXPECT_TRUE(finder.isAttached());
    EXPECT_FALSE(finder.isStillNamed());
    EXPECT_EQ(finder.getSize(), someSize);
    EXPECT_EQ(bytesOf(finder)[0], 7);
}

TEST_P(SharedMemoryHandleContract, TellsAnEarlierSegmentFromTheOneThatHasItsNameNow) {
    SharedMemory earlier = create("name");
    const SharedMemory earlierFinder = find("name");
    { const SharedMemory ended = std::move(earlier); }
    const SharedMemory later = create("name");
    EXPECT_FALSE(earlierFinder.isStillNamed());
    EXPECT_TRUE(later.isStillNamed());
    bytesOf(later)[0] = 7;
    EXPECT_EQ(bytesOf(earlierFinder)[0], 0);
}

TEST_P(SharedMemoryHandleContract, EndsAPersistentSegmentOnlyWhenItIsMarked) {
    {
        SharedMemory memory = create("name");
        memory.makePersistent();
        EXPECT_TRUE(memory.isCreator());
        bytesOf(memory)[0] = 7;
    }
    {
        SharedMemory finder = find("name");
        ASSERT_TRUE(finder.isAttached());
        EXPECT_EQ(bytesOf(finder)[0], 7);
        finder.markForDeletion();
        EXPECT_TRUE(finder.isStillNamed());
    }
    EXPECT_FALSE(find("name").isAttached());
}

TEST_P(SharedMemoryHandleContract, EndsASegmentWithAMarkedFinderBeforeItsCreator) {
    const SharedMemory creator = create("name");
    {
        SharedMemory finder = find("name");
        finder.markForDeletion();
    }
    EXPECT_FALSE(find("name").isAttached());
    EXPECT_TRUE(creator.isAttached());
    EXPECT_FALSE(creator.isStillNamed());
}

TEST_P(SharedMemoryHandleContract, DoesWhatAHandleWasToldLast) {
    {
        SharedMemory memory = create("marked last");
        memory.makePersistent();
        memory.markForDeletion();
    }
    EXPECT_FALSE(find("marked last").isAttached());
    {
        SharedMemory memory = create("persistent last");
        memory.markForDeletion();
        memory.makePersistent();
    }
    SharedMemory found = find("persistent last");
    EXPECT_TRUE(found.isAttached());
    found.markForDeletion();
}

TEST_P(SharedMemoryHandleContract, EndsNoSegmentWithAHandleOfAnEarlierOne) {
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
    EXPECT_TRUE(later.isStillNamed());
    EXPECT_TRUE(find("name").isAttached());
}

TEST_P(SharedMemoryHandleContract, TakesNoNoticeOfAHandleThatIsNotAttached) {
    SharedMemory none;
    none.makePersistent();
    none.markForDeletion();
    EXPECT_FALSE(none.isAttached());
    EXPECT_FALSE(none.isStillNamed());
    EXPECT_EQ(none.getSize(), 0U);
    const SharedMemory creator = create("name");
    {
        SharedMemory detached = create("name");
        detached.markForDeletion();
    }
    EXPECT_TRUE(creator.isStillNamed());
}

TEST_P(SharedMemoryHandleContract, HandsASegmentOnWithTheHandle) {
    SharedMemory from = create("name");
    const void* const pointer = from.getPointer();
    {
        const SharedMemory into = std::move(from);
        EXPECT_TRUE(into.isCreator());
        EXPECT_EQ(into.getPointer(), pointer);
        EXPECT_EQ(into.getSize(), someSize);
        // NOLINTBEGIN(bugprone-use-after-move,clang-analyzer-cplusplus.Move): what moved-from
        // handles promise
        EXPECT_FALSE(from.isAttached());
        EXPECT_FALSE(from.isCreator());
        EXPECT_FALSE(from.isStillNamed());
        EXPECT_EQ(from.getPointer(), nullptr);
        EXPECT_EQ(from.getSize(), 0U);
        // NOLINTEND(bugprone-use-after-move,clang-analyzer-cplusplus.Move)
        EXPECT_TRUE(into.isStillNamed());
    }
    EXPECT_FALSE(find("name").isAttached());
}

TEST_P(SharedMemoryHandleContract, LetsTheSegmentOfAnOverwrittenHandleGo) {
    SharedMemory memory = create("first");
    memory = create("second");
    EXPECT_FALSE(find("first").isAttached());
    EXPECT_TRUE(find("second").isAttached());
    EXPECT_TRUE(memory.isCreator());
    memory = SharedMemory();
    EXPECT_FALSE(find("second").isAttached());
}

INSTANTIATE_TEST_SUITE_P(Implementations, SharedMemoryHandleContract, tests::implementations,
                         tests::implementationName);

} // namespace
