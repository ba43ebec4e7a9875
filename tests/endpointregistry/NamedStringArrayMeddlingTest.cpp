#include "endpointregistry/NamedStringArray.h"

#include "sharedmemory/SharedMemory.h"
#include "tests/endpointregistry/NamedStringArrayTools.h"
#include "tests/support/ForkedProcess.h"

#include <atomic>
#include <cstdint>
#include <functional>
#include <gtest/gtest.h>
#include <stdexcept>
#include <string>

using tests::BaseContent;
using tests::Channel;
using tests::ForkedProcess;

namespace {

/// A process that writes to a table without its lock, which no lock keeps it from.
class NamedStringArrayMeddling : public tests::NamedStringArrayTest {
protected:
    void SetUp() override {
        // One row is free, the last, so that an insertion goes through them all: what it has found
        // out before is long past then.
        constexpr unsigned long rows = 1000;
        array.setLengthStep(rows);
        for (unsigned long row = 0; row + 1 < rows; ++row) {
            array.insert("r0");
        }
    }

    /// Expects that operations refuse or succeed, and end, while the current descriptor's width is
    /// this one at any time.
    void expectNoCrash(std::uint64_t width) {
        ForkedProcess meddler([&](Channel& test) {
            const auto base = table.findBase();
            auto* const content = static_cast<BaseContent*>(base.getPointer());
            const std::atomic_ref<std::uint8_t> index(content->index);
            test.send("begins");
            for (;;) {
                const std::atomic_ref<std::uint64_t> current(content->width.at(index & 1U));
                current.store(width);
                current.store(rightWidth);
            }
        });
        meddler.channel().receive();
        ForkedProcess victim([this](Channel&) {
            constexpr int rounds = 3000;
            for (int round = 0; round < rounds; ++round) {
                attempt([this] { array.insert("rx"); });
                attempt([this] { array.filter({"rx"}); });
                attempt([this] { array.erase("rx"); });
            }
        });
        EXPECT_EQ(victim.waitForExit(), 0);
    }

private:
    static constexpr std::uint64_t rightWidth = 4;

    static void attempt(const std::function<void()>& operation) {
        try {
            operation();
        } catch (const std::runtime_error&) {
            // It has noticed.
        }
    }
};

} // namespace

TEST_F(NamedStringArrayMeddling, WithTheWidthLeadsNobodyOutOfTheContainer) {
    // So many bytes for every row are not too large a table yet.
    expectNoCrash(60000);
}

TEST_F(NamedStringArrayMeddling, WithAWidthBeyondReasonLeadsNobodyOutOfTheContainer) {
    expectNoCrash(std::uint64_t{1} << 36U);
}
