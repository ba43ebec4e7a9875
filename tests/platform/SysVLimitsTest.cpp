#include "tests/platform/SysVTools.h"

#include <cstdint>
#include <fstream>
#include <gtest/gtest.h>
#include <sched.h>
#include <stdexcept>
#include <string>
#include <vector>

namespace {

namespace sysv = tests::sysv;
using sysv::create;
using sysv::createOrFind;
using sysv::find;
using tests::SharedMemory;
using tests::someSize;

/// Gives the calling child a kernel of its own as far as System V memory goes, with this limit;
/// false where the system does not allow it.
bool limit(const std::string& what, std::size_t value) {
    if (::unshare(CLONE_NEWIPC) != 0) {
        return false;
    }
    std::ofstream file("/proc/sys/kernel/" + what);
    file << value << std::flush;
    return file.good();
}

class SysVLimits : public sysv::SysVTest {
protected:
    void SetUp() override {
        if (tests::runInChild([] { EXPECT_TRUE(limit("shmmni", 100)); }) != 0) {
            GTEST_SKIP() << "needs to set the limits of System V shared memory";
        }
    }
};

TEST_F(SysVLimits, OnTheNumberOfSegmentsAreErrorsOfTheirMaker) {
    EXPECT_EQ(tests::runInChild([] {
                  ASSERT_TRUE(limit("shmmni", 2));
                  const SharedMemory first = create("first");
                  SharedMemory second = create("second");
                  EXPECT_THROW(create("third"), std::runtime_error);
                  EXPECT_THROW(createOrFind("third"), std::runtime_error);
                  EXPECT_FALSE(find("third").isAttached());
                  EXPECT_TRUE(find("first").isAttached());
                  EXPECT_FALSE(create("first").isAttached());
                  EXPECT_FALSE(createOrFind("first").isCreator());
                  second = SharedMemory();
                  EXPECT_TRUE(create("third").isCreator());
              }),
              0);
}

TEST_F(SysVLimits, OnTheSizeOfASegmentAreErrorsOfItsMaker) {
    static constexpr std::size_t largest = 65536;
    EXPECT_EQ(tests::runInChild([] {
                  ASSERT_TRUE(limit("shmmax", largest));
                  for (const std::size_t size : {largest, largest + 1, 2 * largest}) {
                      EXPECT_THROW(create("name", size), std::runtime_error) << size;
                      EXPECT_THROW(createOrFind("name", size), std::runtime_error) << size;
                      EXPECT_FALSE(find("name", size).isAttached()) << size;
                  }
                  EXPECT_EQ(sysv::segments().size(), 0U);
                  EXPECT_TRUE(create("name", largest / 2).isCreator());
              }),
              0);
}

TEST_F(SysVLimits, OnAllSegmentsTogetherAreErrorsOfTheirMaker) {
    static constexpr std::size_t pages = 4;
    EXPECT_EQ(tests::runInChild([] {
                  ASSERT_TRUE(limit("shmall", pages));
                  std::vector<SharedMemory> made;
                  for (std::size_t i = 0; i < pages; ++i) {
                      made.push_back(create(std::to_string(i)));
                  }
                  EXPECT_THROW(create("name"), std::runtime_error);
                  EXPECT_THROW(createOrFind("name"), std::runtime_error);
                  EXPECT_TRUE(find("0").isAttached());
                  EXPECT_EQ(sysv::segments().size(), pages);
              }),
              0);
}

} // namespace
