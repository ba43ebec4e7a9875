#include "endpointregistry/Endpoint.h"

#include "tests/endpointregistry/EndpointTools.h"
#include "tests/endpointregistry/LockedFileTools.h"

#include <cstddef>
#include <fstream>
#include <gtest/gtest.h>
#include <ostream>
#include <stdexcept>
#include <string>
#include <unistd.h>
#include <utility>
#include <vector>

using namespace agent::spf::endpointregistry;
using tests::DataPair;
using tests::PlantedEntry;

namespace {

const std::string tag = "tag";
const std::string key = "key";

/// What of the system's is in use by this process.
struct Usage {
    std::size_t descriptors;
    std::size_t mappings;

    bool operator==(const Usage&) const = default;
};

std::ostream& operator<<(std::ostream& stream, const Usage& usage) {
    return stream << usage.descriptors << " descriptors and " << usage.mappings << " mappings";
}

std::size_t countSegmentMappings() {
    std::ifstream maps("/proc/self/maps");
    std::size_t count = 0;
    for (std::string line; std::getline(maps, line);) {
        count += line.find("/dev/shm/") == std::string::npos ? 0U : 1U;
    }
    return count;
}

Usage usage() {
    return {tests::countDescriptors(), countSegmentMappings()};
}

class EndpointAccounting : public tests::RegistryTest {
protected:
    void SetUp() override {
        if (::access("/proc/self/maps", R_OK) != 0) {
            GTEST_SKIP() << "needs /proc/self/maps";
        }
        RegistryTest::SetUp();
        // Whatever is opened once and for all is open now.
        EXPECT_EQ(Endpoint::list().size(), 0U);
    }
};

} // namespace

TEST_F(EndpointAccounting, IsOneDescriptorAndNoMappingForEachEndpoint) {
    const Usage before = usage();
    std::vector<Endpoint> endpoints;
    for (std::size_t i = 1; i <= 20; ++i) {
        endpoints.emplace_back(DataPair(std::to_string(i), ""), tag);
        EXPECT_EQ(usage(), (Usage{before.descriptors + i, before.mappings}));
    }
    endpoints.pop_back();
    EXPECT_EQ(usage(), (Usage{before.descriptors + 19, before.mappings}));
    endpoints.clear();
    EXPECT_EQ(usage(), before);
}

TEST_F(EndpointAccounting, DoesNotGrowWithTheData) {
    const Usage before = usage();
    const Endpoint endpoint({std::string(5'000'000, 'x'), ""}, tag, key);
    EXPECT_EQ(usage(), (Usage{before.descriptors + 1, before.mappings}));
}

TEST_F(EndpointAccounting, IsNothingAfterReset) {
    const Usage before = usage();
    Endpoint endpoint({"a", ""}, tag, key);
    endpoint.reset();
    EXPECT_EQ(usage(), before);
}

TEST_F(EndpointAccounting, IsTheSameAfterAMove) {
    const Usage before = usage();
    Endpoint first({"a", ""}, tag, key);
    Endpoint second({"b", ""}, tag, "other key");
    second = std::move(first);
    EXPECT_EQ(usage(), (Usage{before.descriptors + 1, before.mappings}));
}

TEST_F(EndpointAccounting, IsNothingForFailedPublications) {
    const Endpoint endpoint({"a", ""}, tag, key);
    const Usage before = usage();
    for (int i = 0; i < 50; ++i) {
        EXPECT_THROW(Endpoint({"b", ""}, tag, key), Endpoint::DuplicateEndpointError);
        EXPECT_THROW(Endpoint({"", ""}, tag, key), std::invalid_argument);
    }
    EXPECT_EQ(usage(), before);
}

TEST_F(EndpointAccounting, IsNothingForAPublicationWhoseSegmentIsRefused) {
    const DataPair data("a", "b");
    tests::provideEntryFolder();
    const std::string path = tests::segmentPath(tests::entryName(data, tag, key, ::getpid()));
    ASSERT_EQ(::symlink("nowhere", path.c_str()), 0);
    const Usage before = usage();
    EXPECT_THROW(Endpoint(data, tag, key), std::runtime_error);
    EXPECT_EQ(usage(), before);
    EXPECT_EQ(::unlink(path.c_str()), 0);
}

TEST_F(EndpointAccounting, IsNothingForLookups) {
    const Endpoint endpoint({"a", ""}, tag, key);
    const Usage before = usage();
    for (int i = 0; i < 50; ++i) {
        EXPECT_TRUE(Endpoint::find(tag, key));
        EXPECT_FALSE(Endpoint::find(tag, "missing"));
        EXPECT_EQ(Endpoint::list().size(), 1U);
    }
    EXPECT_EQ(usage(), before);
}

TEST_F(EndpointAccounting, IsNothingForLookupsThatClearUp) {
    const DataPair data("a", "b");
    const Usage before = usage();
    for (int i = 0; i < 50; ++i) {
        const PlantedEntry dead(tests::entryName(data, tag, key, tests::noProcess),
                                tests::segmentBytes(data));
        EXPECT_FALSE(Endpoint::find(tag, key));
    }
    EXPECT_EQ(usage(), before);
}

TEST_F(EndpointAccounting, IsNothingForLookupsThatFail) {
    const DataPair data("a", "b");
    std::string bytes = tests::segmentBytes(data);
    bytes.at(8) = bytes.at(15) = 9;
    PlantedEntry entry(tests::entryName(data, tag, key, ::getppid()), bytes);
    entry.hold();
    const Usage before = usage();
    for (int i = 0; i < 50; ++i) {
        EXPECT_THROW(Endpoint::find(tag, key), std::out_of_range);
    }
    EXPECT_EQ(usage(), before);
}
