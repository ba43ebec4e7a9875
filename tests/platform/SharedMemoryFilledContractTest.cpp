#include "tests/platform/SharedMemoryContract.h"
#include "tests/support/ForkedProcess.h"

#include <algorithm>
#include <atomic>
#include <cstdint>
#include <gtest/gtest.h>
#include <limits>
#include <optional>
#include <stdexcept>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

using namespace std::literals;

namespace {

using tests::bytesOf;
using tests::Channel;
using tests::ForkedProcess;
using tests::SharedMemory;

/// A plain name, and one that no file can have.
const std::vector<std::string> bothKinds{"name", "na/me"};

class SharedMemoryFilled : public tests::SharedMemoryContract {
protected:
    static SharedMemory createFilled(const std::string& name, std::string_view contents,
                                     const std::string& trustee = "") {
        return SharedMemory::createFilled(name, contents, trustee, GetParam());
    }
    static std::optional<std::string> read(const std::string& name, std::size_t size,
                                           const std::string& trustee = "") {
        return SharedMemory::read(name, size, trustee, GetParam());
    }
};

class SharedMemoryFilledProcesses : public SharedMemoryFilled {};

/// Bytes that differ from their neighbours.
std::string variedBytes(std::size_t size) {
    std::string bytes(size, '\0');
    for (std::size_t i = 0; i < size; ++i) {
        bytes[i] = static_cast<char>(i % 251 + 1);
    }
    return bytes;
}

std::string textOf(const SharedMemory& memory) {
    return {static_cast<const char*>(memory.getPointer()), memory.getSize()};
}

TEST_P(SharedMemoryFilled, SegmentsHaveTheirContentsAndAreAsLarge) {
    for (const std::size_t size : {1U, 7U, 4087U, 4095U, 4096U, 4097U, 8192U, 5'000'001U}) {
        for (const std::string& name : bothKinds) {
            const std::string contents = variedBytes(size);
            const SharedMemory memory = createFilled(name, contents);
            ASSERT_TRUE(memory.isAttached()) << size;
            EXPECT_TRUE(memory.isCreator()) << size;
            EXPECT_TRUE(memory.isStillNamed()) << size;
            EXPECT_EQ(memory.getTrustee(), "") << size;
            EXPECT_EQ(memory.getSize(), size);
            EXPECT_TRUE(read(name, size) == contents) << size;
            EXPECT_EQ(find(name, size).getSize(), size);
            EXPECT_TRUE(textOf(find(name, size)) == contents) << size;
            EXPECT_EQ(reinterpret_cast<std::uintptr_t>(memory.getPointer()) % 4096, 0U) << size;
            EXPECT_TRUE(textOf(memory) == contents) << size;
            EXPECT_EQ(read(name, size + 1), std::nullopt) << size;
            EXPECT_FALSE(find(name, size + 1).isAttached()) << size;
        }
    }
}

TEST_P(SharedMemoryFilled, SegmentsTakeContentsOfAnyBytes) {
    for (const std::string& contents :
         {"\0"s, std::string(10000, '\0'), "\xff\0\xff"s, std::string(4096, '\xff')}) {
        const SharedMemory memory = createFilled("name", contents);
        EXPECT_TRUE(read("name", contents.size()) == contents);
        EXPECT_TRUE(textOf(memory) == contents);
    }
}

TEST_P(SharedMemoryFilled, SegmentsAreNeverEmpty) {
    EXPECT_THROW(createFilled("name", ""), std::invalid_argument);
    EXPECT_THROW(read("name", 0), std::invalid_argument);
    const SharedMemory memory = createFilled("name", "x");
    EXPECT_THROW(createFilled("name", ""), std::invalid_argument);
    EXPECT_THROW(read("name", 0), std::invalid_argument);
}

TEST_P(SharedMemoryFilled, SegmentsAreForNoUnknownTrustee) {
    for (const std::string trustee : {"no such group", "no/such", "0"}) {
        EXPECT_THROW(createFilled("name", "contents", trustee), std::invalid_argument) << trustee;
        EXPECT_THROW(read("name", 1, trustee), std::invalid_argument) << trustee;
    }
}

TEST_P(SharedMemoryFilled, SegmentsAreOfAKnownImplementation) {
    constexpr auto unknown = static_cast<SharedMemory::ImplementationSpecifications>(7);
    EXPECT_THROW(SharedMemory::createFilled("name", "x", "", unknown), std::invalid_argument);
    EXPECT_THROW(SharedMemory::read("name", 1, "", unknown), std::invalid_argument);
    EXPECT_THROW(SharedMemory::read("name", 0, "", unknown), std::invalid_argument);
}

TEST_P(SharedMemoryFilled, SegmentsAreMadeOnce) {
    for (const bool isFilledFirst : {true, false}) {
        const SharedMemory first = isFilledFirst ? createFilled("name", "first") : create("name");
        const std::string before = textOf(first);
        for (const std::string contents : {"f", "other", "much longer than the first"}) {
            const SharedMemory second = createFilled("name", contents);
            EXPECT_FALSE(second.isAttached());
            EXPECT_FALSE(second.isCreator());
            EXPECT_EQ(second.getPointer(), nullptr);
            EXPECT_EQ(second.getSize(), 0U);
        }
        EXPECT_FALSE(create("name", 1).isAttached());
        EXPECT_FALSE(createOrFind("name", 5).isCreator());
        EXPECT_EQ(read("name", first.getSize()), before);
    }
}

TEST_P(SharedMemoryFilled, SegmentsGoWithTheirHandle) {
    for (const std::string& name : bothKinds) {
        { const SharedMemory memory = createFilled(name, "contents"); }
        EXPECT_EQ(read(name, 1), std::nullopt);
        EXPECT_FALSE(find(name, 1).isAttached());
        SharedMemory replaced = createFilled(name, "contents");
        replaced = SharedMemory();
        EXPECT_EQ(read(name, 1), std::nullopt);
        SharedMemory moved = createFilled(name, "contents");
        const SharedMemory owner(std::move(moved));
        EXPECT_EQ(read(name, 8), "contents");
    }
}

TEST_P(SharedMemoryFilled, SegmentsStayWhereMadePersistent) {
    for (const std::string& name : bothKinds) {
        createFilled(name, "contents").makePersistent();
        EXPECT_EQ(read(name, 8), "contents");
        EXPECT_FALSE(createFilled(name, "contents").isAttached());
        find(name, 1).markForDeletion();
        EXPECT_EQ(read(name, 8), std::nullopt);
    }
}

TEST_P(SharedMemoryFilled, SegmentsShowWhatIsWrittenToWhoeverLooks) {
    const SharedMemory memory = createFilled("name", "contents");
    const SharedMemory found = find("name", 8);
    bytesOf(memory, 8)[0] = 'C';
    bytesOf(found, 8)[7] = 'S';
    EXPECT_EQ(read("name", 8), "ContentS");
    EXPECT_EQ(textOf(memory), "ContentS");
}

TEST_P(SharedMemoryFilled, SegmentsRefuseSizesBeyondTheMemory) {
    const SharedMemory memory = createFilled("name", "contents");
    constexpr auto largest = static_cast<std::size_t>(std::numeric_limits<std::ptrdiff_t>::max());
    for (const std::size_t size : {SIZE_MAX, SIZE_MAX - 17, SIZE_MAX / 2, largest, largest - 5,
                                   std::size_t{1} << 45U, std::size_t{9}}) {
        EXPECT_EQ(read("name", size), std::nullopt) << size;
        EXPECT_EQ(read("na/me", size), std::nullopt) << size;
    }
}

TEST_P(SharedMemoryFilled, SegmentsOfManyNamesAreNotMixedUp) {
    std::vector<std::string> names{"", "x", "/", "x/", "../x", ".x", "x@u0", "~", "\xff"};
    names.emplace_back("x\0x", 3);
    names.emplace_back(250, 'n');
    names.emplace_back(255, 'n');
    names.emplace_back(256, 'n');
    names.emplace_back(257, 'n');
    names.emplace_back(100'000, 'n');
    std::vector<SharedMemory> segments;
    for (const std::string& name : names) {
        segments.push_back(createFilled(name, "of " + name));
        ASSERT_TRUE(segments.back().isCreator()) << name;
        EXPECT_EQ(segments.back().getSize(), name.size() + 3);
    }
    for (const std::string& name : names) {
        EXPECT_TRUE(read(name, name.size() + 3) == "of " + name) << name;
        EXPECT_EQ(read(name, name.size() + 4), std::nullopt) << name;
    }
}

TEST_P(SharedMemoryFilled, SegmentsAreReadFromTheirBeginning) {
    const std::string contents = variedBytes(10'000);
    const SharedMemory memory = createFilled("name", contents);
    for (const std::size_t size : {1U, 2U, 4095U, 4096U, 4097U, 9999U}) {
        EXPECT_TRUE(read("name", size) == contents.substr(0, size)) << size;
    }
}

TEST_P(SharedMemoryFilled, SegmentsAreReadHoweverTheyWereMade) {
    const SharedMemory zero = create("zero");
    EXPECT_EQ(read("zero", tests::someSize), std::string(tests::someSize, '\0'));
    const SharedMemory either = createOrFind("either", 5);
    bytesOf(either, 5)[4] = 'x';
    EXPECT_EQ(read("either", 5), "\0\0\0\0x"s);
    EXPECT_EQ(read("missing", 1), std::nullopt);
}

TEST_P(SharedMemoryFilledProcesses, LeaveTheSegmentToTheirParent) {
    std::optional<SharedMemory> memory(createFilled("name", "contents"));
    EXPECT_EQ(tests::runInChild([&] {
                  EXPECT_TRUE(memory->isAttached());
                  EXPECT_FALSE(memory->isCreator());
                  EXPECT_TRUE(memory->isStillNamed());
                  EXPECT_EQ(textOf(*memory), "contents");
                  memory->overwriteAtRemoval("C");
                  memory.reset();
              }),
              0);
    EXPECT_EQ(read("name", 8), "contents");
    EXPECT_EQ(textOf(*memory), "contents");
    memory.reset();
    EXPECT_EQ(read("name", 8), std::nullopt);
}

struct Race {
    std::atomic<bool> isOver;
    std::atomic<int> read;
    std::atomic<int> found;
};

TEST_P(SharedMemoryFilledProcesses, NeverFindAPartOfASegment) {
    constexpr std::size_t size = 2'000'000;
    constexpr int rounds = 300;
    constexpr int most = 20 * rounds;
    const tests::sysv::Shared<Race> race;
    const auto expectWhole = [](std::string_view text) {
        EXPECT_GE(text.front(), 'a');
        EXPECT_EQ(text.find_first_not_of(text.front()), std::string_view::npos);
    };
    ForkedProcess reader([&](Channel&) {
        while (!race->isOver && !HasFailure()) {
            if (const auto bytes = read("name", size)) {
                ++race->read;
                EXPECT_EQ(bytes->size(), size);
                expectWhole(*bytes);
            }
        }
    });
    ForkedProcess finder([&](Channel&) {
        while (!race->isOver && !HasFailure()) {
            if (const SharedMemory memory = find("name", size); memory.isAttached()) {
                ++race->found;
                expectWhole(textOf(memory));
            }
        }
    });
    const auto sawNone = [&] { return race->read == 0 || race->found == 0; };
    for (int i = 0; i < rounds || (sawNone() && i < most); ++i) {
        const std::string contents(size + static_cast<std::size_t>(i % 3),
                                   static_cast<char>('a' + i % 26));
        ASSERT_TRUE(createFilled("name", contents).isCreator());
    }
    race->isOver = true;
    EXPECT_EQ(reader.waitForExit(), 0);
    EXPECT_EQ(finder.waitForExit(), 0);
    EXPECT_FALSE(sawNone()) << "or this proves nothing";
}

INSTANTIATE_TEST_SUITE_P(Implementations, SharedMemoryFilled, tests::implementations,
                         tests::implementationName);
INSTANTIATE_TEST_SUITE_P(Implementations, SharedMemoryFilledProcesses, tests::implementations,
                         tests::implementationName);

} // namespace
