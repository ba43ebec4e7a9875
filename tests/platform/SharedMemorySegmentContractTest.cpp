#include "tests/platform/SharedMemoryContract.h"

#include <algorithm>
#include <cstdint>
#include <gtest/gtest.h>
#include <limits>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

namespace {

using tests::bytesOf;
using tests::isZero;
using tests::SharedMemory;
using tests::someSize;

class SharedMemorySegmentContract : public tests::SharedMemoryContract {};
class SharedMemoryThreadsContract : public tests::SharedMemoryContract {};

TEST_P(SharedMemorySegmentContract, MakesSegmentsOfExactlyTheirSizeAllZeroAndAlignedToAPage) {
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

TEST_P(SharedMemorySegmentContract, MakesASegmentOnce) {
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

TEST_P(SharedMemorySegmentContract, ShowsTheSameBytesToWhoeverFindsThem) {
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

TEST_P(SharedMemorySegmentContract, FindsNothingBeforeAndAfter) {
    EXPECT_FALSE(find("name").isAttached());
    { const SharedMemory memory = create("name"); }
    EXPECT_FALSE(find("name").isAttached());
    EXPECT_EQ(find("name").getPointer(), nullptr);
}

TEST_P(SharedMemorySegmentContract, FindsASegmentAtItsSizeAndBelow) {
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

TEST_P(SharedMemorySegmentContract, CreatesOrFindsAsItComes) {
    const SharedMemory first = createOrFind("name");
    EXPECT_TRUE(first.isCreator());
    EXPECT_TRUE(isZero(bytesOf(first)));
    bytesOf(first)[0] = 7;
    const SharedMemory second = createOrFind("name");
    ASSERT_TRUE(second.isAttached());
    EXPECT_FALSE(second.isCreator());
    EXPECT_EQ(bytesOf(second)[0], 7);
}

TEST_P(SharedMemorySegmentContract, BeginsAgainWithZeros) {
    {
        const SharedMemory memory = create("name");
        std::ranges::fill(bytesOf(memory), std::uint8_t{7});
    }
    EXPECT_TRUE(isZero(bytesOf(create("name"))));
}

TEST_P(SharedMemorySegmentContract, RefusesWhatIsNoSizeAndNoTrustee) {
    EXPECT_THROW(create("name", 0), std::invalid_argument);
    EXPECT_THROW(find("name", 0), std::invalid_argument);
    EXPECT_THROW(createOrFind("name", 0), std::invalid_argument);
    for (const std::string trustee : {"no such group", "no/such", "0"}) {
        EXPECT_THROW(create("name", someSize, trustee), std::invalid_argument) << trustee;
        EXPECT_THROW(find("name", someSize, trustee), std::invalid_argument) << trustee;
        EXPECT_THROW(createOrFind("name", someSize, trustee), std::invalid_argument) << trustee;
    }
}

TEST_P(SharedMemorySegmentContract, RefusesSizesBeyondTheMemory) {
    constexpr auto largest = static_cast<std::size_t>(std::numeric_limits<std::ptrdiff_t>::max());
    for (const std::size_t size :
         {SIZE_MAX, SIZE_MAX - 5, SIZE_MAX - 4096, SIZE_MAX / 2, largest, largest - 5}) {
        EXPECT_THROW(create("name", size), std::runtime_error) << size;
        EXPECT_THROW(createOrFind("name", size), std::runtime_error) << size;
        EXPECT_FALSE(find("name", size).isAttached()) << size;
    }
}

TEST_P(SharedMemorySegmentContract, TakesNamesOfAnyBytesAndLengthAndMixesNoneUp) {
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

TEST_P(SharedMemoryThreadsContract, ServesEveryThread) {
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

INSTANTIATE_TEST_SUITE_P(Implementations, SharedMemorySegmentContract, tests::implementations,
                         tests::implementationName);
INSTANTIATE_TEST_SUITE_P(Implementations, SharedMemoryThreadsContract, tests::implementations,
                         tests::implementationName);

} // namespace
