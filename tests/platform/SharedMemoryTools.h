#pragma once

#include "sharedmemory/SharedMemory.h"

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <gtest/gtest.h>
#include <span>
#include <string>
#include <sys/stat.h>
#include <vector>

namespace tests {

using agent::spf::sharedmemory::SharedMemory;

inline constexpr auto posix = SharedMemory::ImplementationSpecifications::Posix;
inline constexpr std::size_t someSize = 100;

inline SharedMemory create(const std::string& name, std::size_t size = someSize,
                           const std::string& trustee = "") {
    return SharedMemory::create(name, size, trustee, posix);
}

inline SharedMemory find(const std::string& name, std::size_t size = someSize,
                         const std::string& trustee = "") {
    return SharedMemory::find(name, size, trustee, posix);
}

inline SharedMemory createOrFind(const std::string& name, std::size_t size = someSize,
                                 const std::string& trustee = "") {
    return SharedMemory::createOrFind(name, size, trustee, posix);
}

inline std::span<std::uint8_t> bytesOf(const SharedMemory& memory, std::size_t size = someSize) {
    return {static_cast<std::uint8_t*>(memory.getPointer()), size};
}

inline bool isZero(std::span<const std::uint8_t> bytes) {
    return std::all_of(bytes.begin(), bytes.end(), [](auto byte) { return byte == 0; });
}

/// The paths of all segments of POSIX shared memory. The users' own folders beside them are none.
inline std::vector<std::string> segmentFiles() {
    std::vector<std::string> paths;
    for (const auto& entry : std::filesystem::directory_iterator("/dev/shm")) {
        if (!entry.path().filename().string().starts_with("Corvantis-")) {
            paths.push_back(entry.path());
        }
    }
    return paths;
}

/// Where the segment of this identity is when there is one, in a /dev/shm that is empty now.
inline std::string fileOf(const std::string& name, const std::string& trustee = "") {
    const SharedMemory segment = create(name, someSize, trustee);
    return segmentFiles().at(0);
}

inline struct stat statusOf(const std::string& path) {
    struct stat status {};
    EXPECT_EQ(::lstat(path.c_str(), &status), 0) << path;
    return status;
}

/// Expects every test to leave shared memory empty.
class SharedMemoryTest : public testing::Test {
protected:
    void TearDown() override {
        EXPECT_EQ(segmentFiles(), std::vector<std::string>());
        clear();
    }

    static void clear() {
        for (const auto& path : segmentFiles()) {
            std::filesystem::remove_all(path);
        }
    }
};

} // namespace tests
