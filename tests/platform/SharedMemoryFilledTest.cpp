#include "tests/endpointregistry/FoldersRefusedCalls.h"
#include "tests/platform/SharedMemoryTools.h"
#include "tests/support/ForkedProcess.h"
#include "tests/support/Sanitizers.h"
#include "tests/support/SmallSharedMemory.h"

#include <cerrno>
#include <cstdint>
#include <filesystem>
#include <fstream>
#include <functional>
#include <gtest/gtest.h>
#include <limits>
#include <optional>
#include <stdexcept>
#include <string>
#include <string_view>
#include <sys/resource.h>
#include <sys/syscall.h>
#include <sys/types.h>
#include <unistd.h>

namespace {

namespace fs = std::filesystem;
using tests::bytesOf;
using tests::find;
using tests::SharedMemory;

const std::string contents = "contents";

SharedMemory createFilled(const std::string& name, std::string_view bytes = contents) {
    return SharedMemory::createFilled(name, bytes, "", tests::posix);
}

std::optional<std::string> read(const std::string& name, std::size_t size = contents.size()) {
    return SharedMemory::read(name, size, "", tests::posix);
}

/// POSIX segments that appear with their contents, and have no address yet.
class SharedMemoryFilledFile : public tests::SharedMemoryTest {};

TEST_F(SharedMemoryFilledFile, IsAsLargeAsItsContentsAndHasNoHoles) {
    for (const std::size_t size : {1U, 4096U, 4097U, 1'000'000U}) {
        const SharedMemory memory = createFilled("name", std::string(size, '\0'));
        const struct stat status = tests::statusOf(tests::segmentFiles().at(0));
        EXPECT_EQ(static_cast<std::size_t>(status.st_size), size);
        EXPECT_GE(static_cast<std::size_t>(status.st_blocks) * 512, size);
    }
}

TEST_F(SharedMemoryFilledFile, HasNoAddressOnceItWasRemoved) {
    for (const std::string name : {"name", "na/me"}) {
        const SharedMemory memory = createFilled(name);
        fs::remove(tests::segmentFiles().at(0));
        EXPECT_THROW(memory.getPointer(), std::runtime_error);
        EXPECT_TRUE(memory.isAttached());
        EXPECT_EQ(memory.getSize(), contents.size());
        EXPECT_FALSE(memory.isStillNamed());
    }
}

TEST_F(SharedMemoryFilledFile, KeepsTheAddressThatItHadWhenItWasRemoved) {
    const SharedMemory memory = createFilled("name");
    const void* const address = memory.getPointer();
    fs::remove(tests::segmentFiles().at(0));
    EXPECT_EQ(memory.getPointer(), address);
    EXPECT_EQ(bytesOf(memory, 8)[7], 's');
}

TEST_F(SharedMemoryFilledFile, IsNotTakenForAnotherInItsPlace) {
    SharedMemory memory = createFilled("name");
    const std::string path = tests::segmentFiles().at(0);
    fs::remove(path);
    const SharedMemory other = createFilled("name", "other");
    EXPECT_THROW(memory.getPointer(), std::runtime_error);
    memory.overwriteAtRemoval("xxxxx");
    EXPECT_EQ(read("name", 5), "other");
    memory = SharedMemory();
    EXPECT_EQ(read("name", 5), "other");
}

TEST_F(SharedMemoryFilledFile, IsNotTakenForALinkToItself) {
    SharedMemory memory = createFilled("name");
    const std::string path = tests::segmentFiles().at(0);
    fs::rename(path, "/dev/shm/moved away");
    fs::create_symlink("/dev/shm/moved away", path);
    EXPECT_THROW(memory.getPointer(), std::runtime_error);
    memory.overwriteAtRemoval("x");
    EXPECT_EQ(read("name"), std::nullopt);
    memory = SharedMemory();
    EXPECT_TRUE(fs::is_symlink(path));
    fs::remove(path);
    fs::rename("/dev/shm/moved away", path);
    EXPECT_EQ(read("name"), contents);
    fs::remove(path);
}

TEST_F(SharedMemoryFilledFile, DoesNotWaitForAPipeInItsPlace) {
    const std::string path = tests::fileOf("name");
    // In a child, where waiting would be noticed.
    EXPECT_EQ(tests::runInChild([&] {
                  SharedMemory memory = createFilled("name");
                  fs::remove(path);
                  ASSERT_EQ(::mkfifo(path.c_str(), 0600), 0);
                  memory.overwriteAtRemoval("x");
                  EXPECT_THROW(memory.getPointer(), std::runtime_error);
                  EXPECT_EQ(read("name"), std::nullopt);
              }),
              0);
    EXPECT_TRUE(fs::exists(path));
    clear();
}

TEST_F(SharedMemoryFilledFile, IsNotReadWhereItHasHoles) {
    for (const std::string name : {"name", "na/me"}) {
        const SharedMemory memory = createFilled(name, std::string(100'000, 'x'));
        const std::string path = tests::segmentFiles().at(0);
        fs::resize_file(path, 10);
        constexpr std::uintmax_t largest = std::numeric_limits<off_t>::max();
        for (const std::uintmax_t size : {std::uintmax_t{100'000}, largest}) {
            fs::resize_file(path, size);
            EXPECT_EQ(read(name, 1), std::nullopt) << size;
            EXPECT_FALSE(find(name, 1).isAttached()) << size;
        }
    }
}

TEST_F(SharedMemoryFilledFile, IsNotReadBeyondItsEndWhereItWasCutShort) {
    const SharedMemory memory = createFilled("name", std::string(100'000, 'x'));
    fs::resize_file(tests::segmentFiles().at(0), 50'000);
    EXPECT_EQ(read("name", 50'001), std::nullopt);
    EXPECT_EQ(read("name", 50'000), std::string(50'000, 'x'));
    const SharedMemory proven = createFilled("na/me", std::string(100'000, 'x'));
    EXPECT_EQ(read("na/me", 100'001), std::nullopt);
    EXPECT_EQ(read("na/me", 100'000), std::string(100'000, 'x'));
}

/// Reads in a child; what is done first happens when the reader has examined the file already.
void readAfter(const std::function<void()>& meanwhile, std::size_t size,
               const std::optional<std::string>& expected) {
    EXPECT_EQ(tests::runInChild([&] {
                  bool isDone = false;
                  tests::refuseCalls({SYS_pread64}, [&](const auto&) {
                      if (!isDone) {
                          meanwhile();
                          isDone = true;
                      }
                      return 0;
                  });
                  EXPECT_TRUE(read("name", size) == expected);
              }),
              0);
}

TEST_F(SharedMemoryFilledFile, IsNotReadWhereItsOwnerCutsItShortMeanwhile) {
    constexpr std::size_t size = 3'000'000;
    for (const std::size_t rest : {0U, 1U, 4096U, 2'999'999U}) {
        const SharedMemory memory = createFilled("name", std::string(size, 'x'));
        const std::string path = tests::segmentFiles().at(0);
        readAfter([&] { fs::resize_file(path, rest); }, size, std::nullopt);
        EXPECT_EQ(fs::file_size(path), rest);
    }
}

TEST_F(SharedMemoryFilledFile, IsReadToTheEndWhenItIsRemovedMeanwhile) {
    const SharedMemory memory = createFilled("name", std::string(100'000, 'x'));
    const std::string path = tests::segmentFiles().at(0);
    readAfter([&] { fs::remove(path); }, 100'000, std::string(100'000, 'x'));
}

TEST_F(SharedMemoryFilledFile, IsNotMixedWithTheOneThatTakesItsPlaceMeanwhile) {
    SharedMemory memory = createFilled("name", std::string(100'000, 'x'));
    const std::string path = tests::segmentFiles().at(0);
    readAfter(
        [&] {
            fs::rename(path, "/dev/shm/moved away");
            std::ofstream(path) << std::string(100'000, 'y') << std::flush;
        },
        100'000, std::string(100'000, 'x'));
    clear();
}

class SharedMemoryFilledLimits : public tests::SharedMemoryTest {};

TEST_F(SharedMemoryFilledLimits, AreMetBeforeTheSegmentIsThere) {
    if (!tests::canLimitSharedMemory()) {
        GTEST_SKIP() << "needs a small /dev/shm";
    }
    constexpr std::size_t limit = 65536;
    EXPECT_EQ(tests::runInChild([] {
                  tests::limitSharedMemoryTo(limit);
                  for (const std::string name : {"name", "na/me"}) {
                      for (const std::size_t size : {limit + 1, 2 * limit, 100 * limit}) {
                          EXPECT_THROW(createFilled(name, std::string(size, 'x')),
                                       std::runtime_error);
                          EXPECT_EQ(read(name, 1), std::nullopt);
                          EXPECT_TRUE(tests::segmentFiles().empty());
                      }
                      EXPECT_TRUE(createFilled(name, std::string(limit / 2, 'x')).isCreator());
                  }
                  const SharedMemory all = createFilled("name", std::string(limit, 'x'));
                  EXPECT_TRUE(all.isCreator());
                  EXPECT_THROW(createFilled("other", "x"), std::runtime_error);
                  EXPECT_EQ(tests::segmentFiles().size(), 1U);
              }),
              0);
}

TEST_F(SharedMemoryFilledLimits, OnDescriptorsAreErrorsAndNotMissingSegments) {
    if (!tests::canDoWithoutDescriptors) {
        GTEST_SKIP() << tests::whyDescriptorsAreNeeded;
    }
    const SharedMemory present = createFilled("present");
    EXPECT_EQ(tests::runInChild([&] {
                  const rlimit none{0, 0};
                  EXPECT_EQ(::setrlimit(RLIMIT_NOFILE, &none), 0);
                  EXPECT_THROW(read("present"), std::runtime_error);
                  EXPECT_THROW(read("absent"), std::runtime_error);
                  EXPECT_THROW(createFilled("absent"), std::runtime_error);
                  EXPECT_THROW(present.getPointer(), std::runtime_error);
                  EXPECT_TRUE(present.isStillNamed());
              }),
              0);
    EXPECT_EQ(tests::segmentFiles().size(), 1U);
}

} // namespace
