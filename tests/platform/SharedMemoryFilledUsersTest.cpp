#include "tests/platform/SharedMemoryContract.h"
#include "tests/support/ForkedProcess.h"
#include "tests/support/TestAccounts.h"

#include <gtest/gtest.h>
#include <optional>
#include <stdexcept>
#include <string>
#include <sys/stat.h>

namespace {

namespace accounts = tests::accounts;
using accounts::anna;
using accounts::ben;
using accounts::carl;
using accounts::friends;
using tests::Channel;
using tests::ForkedProcess;
using tests::SharedMemory;
using tests::sysv::as;

const std::string contents = "contents of anna's";

/// Of segments that appear filled: who may read them.
class SharedMemoryFilledUsers : public tests::SharedMemoryContract {
protected:
    void SetUp() override {
        if (!accounts::available()) {
            GTEST_SKIP() << accounts::whyNot;
        }
        SharedMemoryContract::SetUp();
    }

    static std::optional<std::string> read(const std::string& name, const std::string& trustee) {
        return SharedMemory::read(name, contents.size(), trustee, GetParam());
    }

    /// Runs the body while anna has a segment for this trustee, made under this umask.
    template<typename Body>
    static void whileThereIs(const std::string& name, const std::string& trustee, mode_t mask,
                             Body body) {
        ForkedProcess maker([&](Channel& test) {
            accounts::become(anna);
            ::umask(mask);
            const SharedMemory memory =
                SharedMemory::createFilled(name, contents, trustee, GetParam());
            EXPECT_TRUE(memory.isCreator());
            EXPECT_EQ(memory.getTrustee(), trustee);
            test.send("made");
            test.receive();
            EXPECT_TRUE(memory.isStillNamed());
            EXPECT_EQ(read(name, trustee), contents);
        });
        maker.channel().receive();
        body();
        maker.channel().send("end");
        EXPECT_EQ(maker.waitForExit(), 0);
    }
};

TEST_P(SharedMemoryFilledUsers, ReadTheirPrivateSegmentsAndNoOthers) {
    for (const std::string name : {"name", "na/me"}) {
        for (const mode_t mask : {0000U, 0022U, 0777U}) {
            whileThereIs(name, "", mask, [&name] {
                as(anna, [&] { EXPECT_EQ(read(name, ""), contents); });
                for (const std::string& other : {ben, carl}) {
                    as(other, [&] {
                        EXPECT_EQ(read(name, ""), std::nullopt);
                        EXPECT_EQ(read(name, friends), std::nullopt);
                        // Another user's segment of the name is another one.
                        const SharedMemory own =
                            SharedMemory::createFilled(name, "own", "", GetParam());
                        EXPECT_TRUE(own.isCreator());
                        EXPECT_EQ(SharedMemory::read(name, 3, "", GetParam()), "own");
                    });
                }
            });
        }
    }
}

TEST_P(SharedMemoryFilledUsers, ReadWhatIsForTheirGroupAndNoOthersDo) {
    for (const std::string name : {"name", "na/me"}) {
        for (const mode_t mask : {0000U, 0022U, 0777U}) {
            whileThereIs(name, friends, mask, [&name] {
                for (const std::string& member : {anna, ben}) {
                    as(member, [&] {
                        EXPECT_EQ(read(name, friends), contents);
                        EXPECT_FALSE(SharedMemory::createFilled(name, "x", friends, GetParam())
                                         .isAttached());
                    });
                }
                as(carl, [&] { EXPECT_EQ(read(name, friends), std::nullopt); });
            });
        }
    }
}

TEST_P(SharedMemoryFilledUsers, MakeNoneForGroupsThatTheyAreNotIn) {
    as(carl, [] {
        EXPECT_THROW(SharedMemory::createFilled("name", contents, friends, GetParam()),
                     std::runtime_error);
        EXPECT_THROW(SharedMemory::createFilled("na/me", contents, friends, GetParam()),
                     std::runtime_error);
    });
    EXPECT_EQ(tests::segmentFiles(), std::vector<std::string>());
    EXPECT_EQ(tests::sysv::segments().size(), 0U);
}

INSTANTIATE_TEST_SUITE_P(Implementations, SharedMemoryFilledUsers, tests::implementations,
                         tests::implementationName);

} // namespace
