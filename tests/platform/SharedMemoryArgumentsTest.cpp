#include "tests/platform/SharedMemoryTools.h"
#include "tests/support/ForkedProcess.h"
#include "tests/support/Sanitizers.h"
#include "tests/support/SmallSharedMemory.h"

#include <algorithm>
#include <array>
#include <cstdint>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <gtest/gtest.h>
#include <map>
#include <stdexcept>
#include <string>
#include <sys/resource.h>
#include <vector>

namespace {

using tests::create;
using tests::createOrFind;
using tests::find;
using tests::SharedMemory;
using tests::someSize;

class SharedMemoryArguments : public tests::SharedMemoryTest {};

TEST_F(SharedMemoryArguments, IncludeNoSizeOfZero) {
    EXPECT_THROW(create("name", 0), std::invalid_argument);
    EXPECT_THROW(find("name", 0), std::invalid_argument);
    EXPECT_THROW(createOrFind("name", 0), std::invalid_argument);
}

TEST_F(SharedMemoryArguments, IncludeNoImplementationThatThereIsNot) {
    constexpr auto unknown = static_cast<SharedMemory::ImplementationSpecifications>(2);
    EXPECT_THROW(SharedMemory::create("name", someSize, "", unknown), std::invalid_argument);
    EXPECT_THROW(SharedMemory::find("name", someSize, "", unknown), std::invalid_argument);
    EXPECT_THROW(SharedMemory::createOrFind("name", someSize, "", unknown), std::invalid_argument);
}

TEST_F(SharedMemoryArguments, IncludeNoTrusteeThatIsNoGroup) {
    for (const std::string trustee : {"no such group", "no/such", "0"}) {
        EXPECT_THROW(create("name", someSize, trustee), std::invalid_argument) << trustee;
        EXPECT_THROW(find("name", someSize, trustee), std::invalid_argument) << trustee;
        EXPECT_THROW(createOrFind("name", someSize, trustee), std::invalid_argument) << trustee;
    }
}

TEST_F(SharedMemoryArguments, IncludeNoSizeBeyondTheMemory) {
    constexpr auto largest = static_cast<std::size_t>(PTRDIFF_MAX);
    for (const std::size_t size :
         {SIZE_MAX, SIZE_MAX - 5, SIZE_MAX / 2, largest, largest - 5, std::size_t{1} << 50U}) {
        for (const std::string name : {"name", "na/me"}) {
            EXPECT_THROW(create(name, size), std::runtime_error) << size;
            EXPECT_THROW(createOrFind(name, size), std::runtime_error) << size;
            EXPECT_FALSE(find(name, size).isAttached()) << size;
        }
    }
}

/// Names that a file cannot have, or that read like other names do.
std::vector<std::string> awkwardNames() {
    const std::string x = "x";
    std::vector<std::string> names{
        ".nascent-1", "",         ".",  "..", ".x",  "/",    "/x",   "x/",  "x/x", "../x",
        "x/../x",     "~",        "~x", "@",  "x@",  "x@u0", "x@ux", "x y", "x\n", "\x7f",
        "\xff",       "\xc3\xa4", "X",  "x",  "%2f", "x:y",  "x\\y", "x*",  "-x",  "sem.x"};
    names.emplace_back("x\0", 2);
    names.emplace_back("x\0x", 3);
    names.emplace_back("\0", 1);
    for (std::size_t length = 200; length <= 300; ++length) {
        names.emplace_back(length, 'n');
    }
    names.push_back(std::string(299, 'n') + "m");
    names.emplace_back(5000, 'n');
    return names;
}

TEST_F(SharedMemoryArguments, IncludeEveryNameAndMixNoneUp) {
    const std::vector<std::string> names = awkwardNames();
    std::vector<SharedMemory> segments;
    std::uint32_t content = 0;
    for (const auto& name : names) {
        segments.push_back(create(name, sizeof content));
        ASSERT_TRUE(segments.back().isCreator()) << name;
        *static_cast<std::uint32_t*>(segments.back().getPointer()) = content++;
    }
    EXPECT_EQ(tests::segmentFiles().size(), names.size());
    content = 0;
    for (const auto& name : names) {
        const SharedMemory found = find(name, sizeof content);
        ASSERT_TRUE(found.isAttached()) << name;
        EXPECT_EQ(*static_cast<const std::uint32_t*>(found.getPointer()), content++) << name;
        EXPECT_FALSE(create(name).isAttached()) << name;
    }
}

TEST_F(SharedMemoryArguments, ShowAPlainNameToWhoeverLooks) {
    const std::string name = "qvER0123456789abcdefk0123456789abcdefl12p345v1";
    const std::string file = tests::fileOf(name);
    EXPECT_NE(file.find(name), std::string::npos) << file;
}

class SharedMemoryLimits : public tests::SharedMemoryTest {};

TEST_F(SharedMemoryLimits, AreMetBeforeTheSegmentIsThere) {
    if (!tests::canLimitSharedMemory()) {
        GTEST_SKIP() << "needs a small /dev/shm";
    }
    constexpr std::size_t limit = 65536;
    EXPECT_EQ(tests::runInChild([] {
                  tests::limitSharedMemoryTo(limit);
                  for (const std::string name : {"name", "na/me"}) {
                      EXPECT_THROW(create(name, limit + 1), std::runtime_error);
                      EXPECT_THROW(createOrFind(name, limit + 1), std::runtime_error);
                      EXPECT_FALSE(find(name, 1).isAttached());
                      EXPECT_TRUE(create(name, limit / 2).isCreator());
                  }
                  EXPECT_TRUE(tests::segmentFiles().empty());
              }),
              0);
}

TEST_F(SharedMemoryLimits, LeaveEveryByteOfASegmentUsable) {
    if (!tests::canLimitSharedMemory()) {
        GTEST_SKIP() << "needs a small /dev/shm";
    }
    constexpr std::size_t limit = 262144;
    // A signal on one of the writes would end the child.
    EXPECT_EQ(tests::runInChild([] {
                  tests::limitSharedMemoryTo(limit);
                  std::vector<SharedMemory> segments;
                  const auto makeAnother = [&segments] {
                      segments.push_back(create(std::to_string(segments.size()), 10000));
                  };
                  EXPECT_THROW(
                      for (std::size_t i = 0; i < limit; ++i) { makeAnother(); },
                      std::runtime_error);
                  EXPECT_FALSE(segments.empty());
                  for (const auto& segment : segments) {
                      std::ranges::fill(tests::bytesOf(segment, 10000), std::uint8_t{1});
                  }
                  EXPECT_EQ(tests::segmentFiles().size(), segments.size());
              }),
              0);
}

TEST_F(SharedMemoryLimits, OnDescriptorsAreErrorsAndNotMissingSegments) {
    if (!tests::canDoWithoutDescriptors) {
        GTEST_SKIP() << tests::whyDescriptorsAreNeeded;
    }
    const SharedMemory present = create("present");
    EXPECT_EQ(tests::runInChild([] {
                  const rlimit none{0, 0};
                  EXPECT_EQ(::setrlimit(RLIMIT_NOFILE, &none), 0);
                  EXPECT_THROW(find("present"), std::runtime_error);
                  EXPECT_THROW(find("absent"), std::runtime_error);
                  EXPECT_THROW(create("absent"), std::runtime_error);
                  EXPECT_THROW(createOrFind("absent"), std::runtime_error);
              }),
              0);
    EXPECT_EQ(tests::segmentFiles().size(), 1U);
}

/// The open descriptors of this process and their flags.
std::map<int, int> openDescriptors() {
    // Not from /proc, which a profile hides.
    constexpr int highest = 256;
    std::map<int, int> descriptors;
    for (int descriptor = 0; descriptor < highest; ++descriptor) {
        if (const int flags = ::fcntl(descriptor, F_GETFD); flags != -1) {
            descriptors[descriptor] = flags;
        }
    }
    return descriptors;
}

/// How many mappings of shared-memory files this process has; none to be seen without /proc.
std::ptrdiff_t mappingCount() {
    std::ifstream maps("/proc/self/maps");
    std::ptrdiff_t count = 0;
    for (std::string line; std::getline(maps, line);) {
        count += line.find("/dev/shm/") == std::string::npos ? 0 : 1;
    }
    return count;
}

TEST_F(SharedMemoryLimits, AreNotEatenUpByHandlesThatAreGone) {
    const auto descriptorsBefore = openDescriptors();
    const auto mappingsBefore = mappingCount();
    std::filesystem::create_directory(tests::fileOf("planted"));
    for (const std::string name : {"name", "na/me"}) {
        SharedMemory creator = create(name);
        SharedMemory finder = find(name);
        const SharedMemory other = createOrFind(name);
        EXPECT_FALSE(create(name).isAttached());
        EXPECT_FALSE(find(name, someSize * 2).isAttached());
        EXPECT_FALSE(find("absent").isAttached());
        EXPECT_THROW(createOrFind(name, someSize * 2), std::runtime_error);
        EXPECT_THROW(create("absent", SIZE_MAX), std::runtime_error);
        EXPECT_THROW(create("planted"), std::runtime_error);
        EXPECT_FALSE(find("planted").isAttached());
        finder = std::move(creator);
        for (const auto& [descriptor, flags] : openDescriptors()) {
            EXPECT_TRUE(descriptorsBefore.contains(descriptor) || (flags & FD_CLOEXEC) != 0)
                << descriptor;
        }
    }
    std::filesystem::remove(tests::segmentFiles().at(0));
    EXPECT_EQ(openDescriptors(), descriptorsBefore);
    EXPECT_EQ(mappingCount(), mappingsBefore);
}

} // namespace
