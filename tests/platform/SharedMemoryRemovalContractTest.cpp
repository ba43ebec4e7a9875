#include "tests/platform/SharedMemoryContract.h"
#include "tests/support/ForkedProcess.h"

#include <gtest/gtest.h>
#include <optional>
#include <stdexcept>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

using namespace std::literals;

namespace {

using tests::SharedMemory;

enum class Handle { ofTheMaker, ofTheMakerWithItsAddress, ofAFinder };

/// What a handle writes over a segment's beginning when it removes it, by each kind of handle.
class SharedMemoryLastBytes : public tests::SharedMemoryContract {
protected:
    static constexpr std::string_view contents = "contents";

    static SharedMemory make(const std::string& name = "name") {
        return SharedMemory::createFilled(name, contents, "", GetParam());
    }
    static std::optional<std::string> read() {
        return SharedMemory::read("name", contents.size(), "", GetParam());
    }
    static std::string_view textOf(const SharedMemory& memory) {
        return {static_cast<const char*>(memory.getPointer()), contents.size()};
    }

    /// A handle that will remove the segment, and one that stays attached to it.
    template<typename Body>
    void withEachHandle(Body body) {
        for (const Handle kind :
             {Handle::ofTheMaker, Handle::ofTheMakerWithItsAddress, Handle::ofAFinder}) {
            SCOPED_TRACE(static_cast<int>(kind));
            SharedMemory remover = make();
            if (kind == Handle::ofTheMakerWithItsAddress) {
                EXPECT_NE(remover.getPointer(), nullptr);
            } else if (kind == Handle::ofAFinder) {
                remover.makePersistent();
                remover = find("name", 1);
                remover.markForDeletion();
            }
            const SharedMemory witness = find("name", contents.size());
            body(remover, witness);
        }
    }
};

TEST_P(SharedMemoryLastBytes, AreSeenByWhoIsAttached) {
    withEachHandle([](SharedMemory& remover, const SharedMemory& witness) {
        remover.overwriteAtRemoval("C\0"sv);
        EXPECT_EQ(textOf(witness), contents);
        remover = SharedMemory();
        EXPECT_EQ(textOf(witness), "C\0ntents"sv);
        EXPECT_EQ(read(), std::nullopt);
    });
}

TEST_P(SharedMemoryLastBytes, MayBeAllOfThem) {
    withEachHandle([](SharedMemory& remover, const SharedMemory& witness) {
        remover.overwriteAtRemoval("12345678");
        remover = SharedMemory();
        EXPECT_EQ(textOf(witness), "12345678");
    });
}

TEST_P(SharedMemoryLastBytes, AreNoMoreThanThereAre) {
    withEachHandle([](SharedMemory& remover, const SharedMemory& witness) {
        EXPECT_THROW(remover.overwriteAtRemoval("123456789"), std::invalid_argument);
        remover = SharedMemory();
        EXPECT_EQ(textOf(witness), contents);
    });
}

TEST_P(SharedMemoryLastBytes, SpareTheProofBehindTheCallersBytes) {
    SharedMemory memory = make("na/me");
    EXPECT_THROW(memory.overwriteAtRemoval("123456789"), std::invalid_argument);
    memory.overwriteAtRemoval("12345678");
    EXPECT_EQ(SharedMemory::read("na/me", 8, "", GetParam()), contents);
}

TEST_P(SharedMemoryLastBytes, AreNotWrittenByWhoRemovesNothing) {
    {
        SharedMemory maker = make();
        maker.overwriteAtRemoval("x");
        maker.makePersistent();
        find("name", 1).overwriteAtRemoval("x");
    }
    EXPECT_EQ(read(), contents);
    find("name", 1).markForDeletion();
}

TEST_P(SharedMemoryLastBytes, AreTheParentsToWrite) {
    SharedMemory maker = make();
    maker.overwriteAtRemoval("x");
    EXPECT_EQ(tests::runInChild([&maker] { maker = SharedMemory(); }), 0);
    EXPECT_EQ(read(), contents);
}

TEST_P(SharedMemoryLastBytes, MoveWithTheHandle) {
    SharedMemory maker = make();
    maker.overwriteAtRemoval("C");
    const SharedMemory witness = find("name", contents.size());
    {
        const SharedMemory moved = std::move(maker);
        // NOLINTNEXTLINE(bugprone-use-after-move,clang-analyzer-cplusplus.Move): that is asked here
        maker.overwriteAtRemoval("x");
    }
    EXPECT_EQ(textOf(witness), "Contents");
}

TEST_P(SharedMemoryLastBytes, SpareTheSegmentThatTookThePlace) {
    withEachHandle([](SharedMemory& remover, const SharedMemory&) {
        remover.overwriteAtRemoval("x");
        find("name", 1).markForDeletion();
        const SharedMemory next = make();
        ASSERT_TRUE(next.isCreator());
        remover = SharedMemory();
        EXPECT_EQ(read(), contents);
    });
}

TEST_P(SharedMemoryLastBytes, OfARemovedSegmentMakeNone) {
    withEachHandle([](SharedMemory& remover, const SharedMemory&) {
        remover.overwriteAtRemoval("x");
        find("name", 1).markForDeletion();
        remover = SharedMemory();
        EXPECT_EQ(tests::segmentFiles(), std::vector<std::string>());
    });
}

INSTANTIATE_TEST_SUITE_P(Implementations, SharedMemoryLastBytes, tests::implementations,
                         tests::implementationName);

} // namespace
