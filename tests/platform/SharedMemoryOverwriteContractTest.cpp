#include "tests/platform/SharedMemoryContract.h"

#include <cstddef>
#include <cstdint>
#include <gtest/gtest.h>
#include <optional>
#include <string>
#include <string_view>
#include <type_traits>
#include <utility>

using namespace std::literals;

namespace {

using tests::bytesOf;
using tests::SharedMemory;

enum class Handle { ofTheMaker, ofTheMakerWithItsAddress, ofAFinder };

/// Over a segment of these contents, by each kind of handle.
class SharedMemoryOverwrite : public tests::SharedMemoryContract {
protected:
    static constexpr std::string_view contents = "contents";

    SharedMemoryOverwrite()
        : made(make()) {}

    void TearDown() override {
        found = SharedMemory();
        made = SharedMemory();
        SharedMemoryContract::TearDown();
    }

    static SharedMemory make() {
        return SharedMemory::createFilled("name", contents, "", GetParam());
    }
    static std::optional<std::string> read() {
        return SharedMemory::read("name", contents.size(), "", GetParam());
    }

    SharedMemory& handle(Handle kind) {
        if (kind == Handle::ofAFinder) {
            found = find("name", 1);
            return found;
        }
        if (kind == Handle::ofTheMakerWithItsAddress) {
            EXPECT_NE(made.getPointer(), nullptr);
        }
        return made;
    }

    template<typename Body>
    void withEachHandle(Body body) {
        for (const Handle kind :
             {Handle::ofTheMaker, Handle::ofTheMakerWithItsAddress, Handle::ofAFinder}) {
            SCOPED_TRACE(static_cast<int>(kind));
            found = SharedMemory();
            made = SharedMemory();
            made = make();
            body(handle(kind));
        }
    }

    // NOLINTBEGIN(cppcoreguidelines-non-private-member-variables-in-classes): a fixture
    SharedMemory made;
    SharedMemory found;
    // NOLINTEND(cppcoreguidelines-non-private-member-variables-in-classes)
};

TEST_P(SharedMemoryOverwrite, ChangesTheseBytesAlone) {
    withEachHandle([](SharedMemory& memory) {
        memory.overwrite(0, "C");
        EXPECT_EQ(read(), "Contents");
        memory.overwrite(7, "S");
        EXPECT_EQ(read(), "ContentS");
        memory.overwrite(3, "T\0"sv);
        EXPECT_EQ(read(), "ConT\0ntS"s);
        memory.overwrite(0, "12345678");
        EXPECT_EQ(read(), "12345678");
        EXPECT_EQ(bytesOf(memory, 8)[4], '5');
        EXPECT_EQ(memory.getSize(), contents.size());
    });
}

TEST_P(SharedMemoryOverwrite, WritesNothingThatReachesPastTheEnd) {
    withEachHandle([](SharedMemory& memory) {
        memory.overwrite(8, "x");
        memory.overwrite(7, "xx");
        memory.overwrite(0, "123456789");
        memory.overwrite(9, "");
        memory.overwrite(4096, "x");
        memory.overwrite(SIZE_MAX, "x");
        memory.overwrite(SIZE_MAX - 1, "xxxx");
        memory.overwrite(SIZE_MAX - 7, contents);
        EXPECT_EQ(read(), contents);
        EXPECT_FALSE(find("name", 9).isAttached());
        EXPECT_EQ(find("name", 8).getSize(), 8U);
    });
}

TEST_P(SharedMemoryOverwrite, OfNoBytesChangesNothing) {
    withEachHandle([](SharedMemory& memory) {
        for (const std::size_t offset : {0U, 4U, 7U, 8U}) {
            memory.overwrite(offset, "");
            EXPECT_EQ(read(), contents);
        }
    });
}

TEST_P(SharedMemoryOverwrite, SparesTheProofBehindTheCallersBytes) {
    made = SharedMemory();
    SharedMemory memory = SharedMemory::createFilled("na/me", contents, "", GetParam());
    memory.overwrite(8, "x");
    memory.overwrite(7, "xx");
    memory.overwrite(7, "S");
    EXPECT_EQ(SharedMemory::read("na/me", 8, "", GetParam()), "contentS");
}

TEST_P(SharedMemoryOverwrite, WithoutASegmentDoesNothing) {
    SharedMemory none;
    none.overwrite(0, "x");
    SharedMemory moved = std::move(made);
    made.overwrite(0, "x"); // NOLINT(bugprone-use-after-move): what it does is asked here
    EXPECT_EQ(read(), contents);
    moved.overwrite(0, "x");
    EXPECT_EQ(read(), "xontents");
    static_assert(noexcept(none.overwrite(0, {})));
}

TEST_P(SharedMemoryOverwrite, SparesTheSegmentThatTookThePlace) {
    withEachHandle([](SharedMemory& memory) {
        find("name", 1).markForDeletion();
        EXPECT_FALSE(memory.isStillNamed());
        const SharedMemory next = make();
        ASSERT_TRUE(next.isCreator());
        memory.overwrite(0, "x");
        EXPECT_EQ(read(), contents);
        memory = SharedMemory();
        EXPECT_EQ(read(), contents);
    });
}

TEST_P(SharedMemoryOverwrite, OfARemovedSegmentMakesNone) {
    withEachHandle([](SharedMemory& memory) {
        find("name", 1).markForDeletion();
        memory.overwrite(0, "x");
        EXPECT_EQ(read(), std::nullopt);
        EXPECT_EQ(tests::segmentFiles(), std::vector<std::string>());
    });
}

INSTANTIATE_TEST_SUITE_P(Implementations, SharedMemoryOverwrite, tests::implementations,
                         tests::implementationName);

} // namespace
