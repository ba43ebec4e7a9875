#pragma once

#include "tests/platform/SharedMemoryTools.h"
#include "tests/platform/SysVTools.h"
#include "tests/support/SharedFolder.h"

#include <cstddef>
#include <filesystem>
#include <gtest/gtest.h>
#include <string>
#include <vector>

namespace tests {

/// What every implementation promises; the tests are of one process.
class SharedMemoryContract
    : public testing::TestWithParam<SharedMemory::ImplementationSpecifications> {
protected:
    void SetUp() override { provideSharedFolder(); }

    void TearDown() override {
        EXPECT_EQ(segmentFiles(), std::vector<std::string>());
        EXPECT_EQ(sysv::segments().size(), 0U);
        EXPECT_EQ(sysv::allRecords(), std::vector<std::string>());
        for (const auto& path : segmentFiles()) {
            std::filesystem::remove_all(path);
        }
        sysv::removeAllSegments();
    }

    static SharedMemory create(const std::string& name, std::size_t size = someSize,
                               const std::string& trustee = "") {
        return SharedMemory::create(name, size, trustee, GetParam());
    }
    static SharedMemory find(const std::string& name, std::size_t size = someSize,
                             const std::string& trustee = "") {
        return SharedMemory::find(name, size, trustee, GetParam());
    }
    static SharedMemory createOrFind(const std::string& name, std::size_t size = someSize,
                                     const std::string& trustee = "") {
        return SharedMemory::createOrFind(name, size, trustee, GetParam());
    }
};

/// How the tests of a contract are named after the implementation.
inline std::string implementationName(
    const testing::TestParamInfo<SharedMemory::ImplementationSpecifications>& tested) {
    return tested.param == posix ? "Posix" : "SysV";
}

inline const auto implementations = testing::Values(posix, sysv::implementation);

} // namespace tests
