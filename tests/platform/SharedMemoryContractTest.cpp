#include "tests/platform/SharedMemoryTools.h"
#include "tests/platform/SysVTools.h"

#include <algorithm>
#include <cstdint>
#include <gtest/gtest.h>
#include <limits>
#include <stdexcept>
#include <string>
#include <sys/shm.h>
#include <thread>
#include <utility>
#include <vector>

namespace {

using tests::bytesOf;
using tests::isZero;
using tests::SharedMemory;
using tests::someSize;

/// What every implementation promises to one process.
class SharedMemoryContract
    : public testing::TestWithParam<SharedMemory::ImplementationSpecifications> {
protected:
    void TearDown() override {
        EXPECT_EQ(tests::segmentFiles(), std::vector<std::string>());
        EXPECT_EQ(tests::sysv::segments().size(), 0U);
        for (const auto& path : tests::segmentFiles()) {
            std::filesystem::remove_all(path);
        }
        for (const auto& segment : tests::sysv::segments()) {
            ::shmctl(segment.id, IPC_RMID, nullptr);
        }
    }

    static SharedMemory create(const std::string& name, std::size_t size = someSize,
                               const std::string& trustee = "") {
        return SharedMemory::create(name, size, trustee, GetParam());
    }
    static SharedMemory find(const std::string& name, std::size_t size = someSize,
                             const std::string& trustee = "") {
        return SharedMemory::find(name, size, trustee, GetParam());
    }
    static SharedMemory createOrFind(const std::string& name, std::size_t size = someSize,
                                     const std::string& trustee = "") {
        return SharedMemory::createOrFind(name, size, trustee, GetParam());
    }
};

TEST_P(SharedMemoryContract, MakesSegmentsOfExactlyTheirSizeAllZeroAndAlignedToAPage) {
    for (const std::size_t size : {1U, 7U, 100U, 4087U, 4095U, 4096U, 4097U, 8192U, 100001U}) {
        const SharedMemory memory = create("name", size);
        ASSERT_TRUE(memory.isAttached()) << size;
        EXPECT_TRUE(memory.isCreator()) << size;
        EXPECT_TRUE(memory.isStillNamed()) << size;
        EXPECT_EQ(memory.getTrustee(), "") << size;
        EXPECT_EQ(memory.getSize(), size);
        EXPECT_EQ(reinterpret_cast<std::uintptr_t>(memory.getPointer()) % 4096, 0U) << size;
        EXPECT_TRUE(isZero(bytesOf(memory, size))) << size;
        std::ranges::fill(bytesOf(memory, size), std::uint8_t{0xff});
        EXPECT_EQ(bytesOf(find("name", size), size).back(), 0xff) << size;
    }
}

TEST_P(SharedMemoryContract, MakesASegmentOnce) {
    const SharedMemory first = create("name");
    bytesOf(first)[0] = 7;
    for (const std::size_t size : {someSize, someSize - 1, someSize + 1}) {
        const SharedMemory second = create("name", size);
        EXPECT_FALSE(second.isAttached());
        EXPECT_FALSE(second.isCreator());
        EXPECT_FALSE(second.isStillNamed());
        EXPECT_EQ(second.getPointer(), nullptr);
        EXPECT_EQ(second.getSize(), 0U);
        EXPECT_EQ(second.getTrustee(), "");
    }
    EXPECT_EQ(bytesOf(find("name"))[0], 7);
}

TEST_P(SharedMemoryContract, ShowsTheSameBytesToWhoeverFindsThem) {
    const SharedMemory creator = create("name");
    const SharedMemory finder = find("name");
    ASSERT_TRUE(finder.isAttached());
    EXPECT_FALSE(finder.isCreator());
    EXPECT_TRUE(finder.isStillNamed());
    bytesOf(creator).back() = 7;
    EXPECT_EQ(bytesOf(finder).back(), 7);
    bytesOf(finder).front() = 8;
    EXPECT_EQ(bytesOf(creator).front(), 8);
}

TEST_P(SharedMemoryContract, FindsNothingBeforeAndAfter) {
    EXPECT_FALSE(find("name").isAttached());
    { const SharedMemory memory = create("name"); }
    EXPECT_FALSE(find("name").isAttached());
    EXPECT_EQ(find("name").getPointer(), nullptr);
}

TEST_P(SharedMemoryContract, FindsASegmentAtItsSizeAndBelow) {
    const SharedMemory memory = create("name");
    for (const std::size_t size : {std::size_t{1}, someSize - 1, someSize}) {
        const SharedMemory found = find("name", size);
        EXPECT_TRUE(found.isAttached()) << size;
        EXPECT_EQ(found.getSize(), someSize) << size;
        EXPECT_EQ(createOrFind("name", size).getSize(), someSize) << size;
    }
    // The bookkeeping that stands behind the caller's bytes is none of them.
    for (const std::size_t size : {someSize + 1, someSize + 8, std::size_t{4096}, SIZE_MAX}) {
        EXPECT_FALSE(find("name", size).isAttached()) << size;
        EXPECT_THROW(createOrFind("name", size), std::runtime_error) << size;
    }
    EXPECT_TRUE(memory.isStillNamed());
}

TEST_P(SharedMemoryContract, CreatesOrFindsAsItComes) {
    const SharedMemory first = createOrFind("name");
    EXPECT_TRUE(first.isCreator());
    EXPECT_TRUE(isZero(bytesOf(first)));
    bytesOf(first)[0] = 7;
    const SharedMemory second = createOrFind("name");
    ASSERT_TRUE(second.isAttached());
    EXPECT_FALSE(second.isCreator());
    EXPECT_EQ(bytesOf(second)[0], 7);
}

TEST_P(SharedMemoryContract, BeginsAgainWithZeros) {
    {
        const SharedMemory memory = create("name");
        std::ranges::fill(bytesOf(memory), std::uint8_t{7});
    }
    EXPECT_TRUE(isZero(bytesOf(create("name"))));
}

TEST_P(SharedMemoryContract, KeepsASegmentForAsLongAsItsCreatorWhateverFindersDo) {
    const SharedMemory creator = create("name");
    { const SharedMemory finder = find("name"); }
    { const SharedMemory finder = createOrFind("name"); }
    EXPECT_TRUE(creator.isStillNamed());
    EXPECT_TRUE(find("name").isAttached());
}

TEST_P(SharedMemoryContract, LeavesItsBytesToThoseAttachedWhenASegmentEnds) {
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

TEST_P(SharedMemoryContract, TellsAnEarlierSegmentFromTheOneThatHasItsNameNow) {
    SharedMemory earlier = create("name");
    const SharedMemory earlierFinder = find("name");
    { const SharedMemory ended = std::move(earlier); }
    const SharedMemory later = create("name");
    EXPECT_FALSE(earlierFinder.isStillNamed());
    EXPECT_TRUE(later.isStillNamed());
    bytesOf(later)[0] = 7;
    EXPECT_EQ(bytesOf(earlierFinder)[0], 0);
}

TEST_P(SharedMemoryContract, EndsAPersistentSegmentOnlyWhenItIsMarked) {
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

TEST_P(SharedMemoryContract, EndsASegmentWithAMarkedFinderBeforeItsCreator) {
    const SharedMemory creator = create("name");
    {
        SharedMemory finder = find("name");
        finder.markForDeletion();
    }
    EXPECT_FALSE(find("name").isAttached());
    EXPECT_TRUE(creator.isAttached());
    EXPECT_FALSE(creator.isStillNamed());
}

TEST_P(SharedMemoryContract, DoesWhatAHandleWasToldLast) {
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

TEST_P(SharedMemoryContract, EndsNoSegmentWithAHandleOfAnEarlierOne) {
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

TEST_P(SharedMemoryContract, TakesNoNoticeOfAHandleThatIsNotAttached) {
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

TEST_P(SharedMemoryContract, HandsASegmentOnWithTheHandle) {
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

TEST_P(SharedMemoryContract, LetsTheSegmentOfAnOverwrittenHandleGo) {
    SharedMemory memory = create("first");
    memory = create("second");
    EXPECT_FALSE(find("first").isAttached());
    EXPECT_TRUE(find("second").isAttached());
    EXPECT_TRUE(memory.isCreator());
    memory = SharedMemory();
    EXPECT_FALSE(find("second").isAttached());
}

TEST_P(SharedMemoryContract, RefusesWhatIsNoSizeAndNoTrustee) {
    EXPECT_THROW(create("name", 0), std::invalid_argument);
    EXPECT_THROW(find("name", 0), std::invalid_argument);
    EXPECT_THROW(createOrFind("name", 0), std::invalid_argument);
    for (const std::string trustee : {"no such group", "no/such", "0"}) {
        EXPECT_THROW(create("name", someSize, trustee), std::invalid_argument) << trustee;
        EXPECT_THROW(find("name", someSize, trustee), std::invalid_argument) << trustee;
        EXPECT_THROW(createOrFind("name", someSize, trustee), std::invalid_argument) << trustee;
    }
}

TEST_P(SharedMemoryContract, RefusesSizesBeyondTheMemory) {
    constexpr auto largest = static_cast<std::size_t>(std::numeric_limits<std::ptrdiff_t>::max());
    for (const std::size_t size :
         {SIZE_MAX, SIZE_MAX - 5, SIZE_MAX - 4096, SIZE_MAX / 2, largest, largest - 5}) {
        EXPECT_THROW(create("name", size), std::runtime_error) << size;
        EXPECT_THROW(createOrFind("name", size), std::runtime_error) << size;
        EXPECT_FALSE(find("name", size).isAttached()) << size;
    }
}

TEST_P(SharedMemoryContract, TakesNamesOfAnyBytesAndLengthAndMixesNoneUp) {
    std::vector<std::string> names{"",   "x",   "X",    "/",        "x/", "../x", ".x", "x@u0",
                                   "x ", "x\n", "\xff", "\xc3\xa4", "u0", "~",    "%"};
    names.emplace_back("x\0", 2);
    names.emplace_back("x\0x", 3);
    names.emplace_back("\0", 1);
    names.emplace_back(70, 'n');
    names.emplace_back(255, 'n');
    names.emplace_back(256, 'n');
    names.push_back(std::string(255, 'n') + "m");
    names.emplace_back(100'000, 'n');
    std::vector<SharedMemory> segments;
    for (std::uint8_t i = 0; i < names.size(); ++i) {
        segments.push_back(create(names[i], 1));
        ASSERT_TRUE(segments.back().isCreator()) << names[i];
        EXPECT_EQ(segments.back().getSize(), 1U);
        bytesOf(segments.back(), 1)[0] = i;
    }
    for (std::uint8_t i = 0; i < names.size(); ++i) {
        const SharedMemory found = find(names[i], 1);
        ASSERT_TRUE(found.isAttached()) << names[i];
        EXPECT_EQ(bytesOf(found, 1)[0], i) << names[i];
    }
}

TEST_P(SharedMemoryContract, ServesEveryThread) {
    const SharedMemory common = create("common");
    std::vector<std::thread> threads;
    for (int i = 0; i < 4; ++i) {
        threads.emplace_back([i] {
            for (int turn = 0; turn < 100; ++turn) {
                EXPECT_TRUE(find("common").isAttached());
                EXPECT_FALSE(create("common").isAttached());
                EXPECT_TRUE(create(std::to_string(i)).isCreator());
            }
        });
    }
    for (auto& thread : threads) {
        thread.join();
    }
}

INSTANTIATE_TEST_SUITE_P(Implementations, SharedMemoryContract,
                         testing::Values(SharedMemory::ImplementationSpecifications::Posix,
                                         SharedMemory::ImplementationSpecifications::SysV),
                         [](const auto& tested) {
                             return tested.param == tests::posix ? "Posix" : "SysV";
                         });

} // namespace
