#pragma once

#include "endpointregistry/LockedFile.h"
#include "endpointregistry/NamedStringArray.h"

#include <array>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <gtest/gtest.h>
#include <string>
#include <utility>
#include <vector>

/// Tables of tuples of strings as their bytes in shared memory, written and read past the class.
namespace tests {

using agent::spf::endpointregistry::NamedStringArray;
using agent::spf::sharedmemory::SharedMemory;
using Entry = std::vector<std::string>;
using Entries = std::vector<Entry>;
/// Rows and bytes per row.
using Dimensions = std::pair<unsigned long, unsigned long>;

/// The bytes of a base segment.
struct BaseContent {
    std::uint32_t initializer = 0;
    std::uint8_t flags = 0;
    std::uint8_t index = 0;
    std::uint16_t reserved = 0;
    std::array<std::uint64_t, 2> width{};
    std::array<std::uint64_t, 2> length{};
    std::array<std::uint64_t, 2> generation{};

    bool operator==(const BaseContent&) const = default;
};
static_assert(sizeof(BaseContent) == 56);
static_assert(offsetof(BaseContent, flags) == 4 && offsetof(BaseContent, index) == 5);
static_assert(offsetof(BaseContent, width) == 8 && offsetof(BaseContent, length) == 24);
static_assert(offsetof(BaseContent, generation) == 40);

/// Handles one table's segments by hand.
class RawTable {
public:
    explicit RawTable(std::string name, unsigned long version = 0, std::string trustee = "");

    NamedStringArray array() const;
    Dimensions dimensions() const;
    void remove() const;

    /// Holds the lock that all tables of the trustee have in common.
    agent::spf::endpointregistry::LockedFile lock() const;

    std::string baseName() const;
    std::string containerName(unsigned long generation) const;

    SharedMemory findBase() const;
    SharedMemory findContainer(unsigned long generation, std::size_t size = 1) const;
    bool hasBase() const { return findBase().isAttached(); }
    bool hasContainer(unsigned long generation) const;

    /// Makes the segment to stay, in place of the one there is.
    void plantBase(const BaseContent& content) const;
    void plantContainer(unsigned long generation, const std::string& content) const;
    /// An initialised table whose current descriptor is 0. Every row is `width` bytes.
    void plant(unsigned long generation, unsigned long width,
               const std::vector<std::string>& rows) const;

    BaseContent base() const;
    void setBase(const BaseContent& content) const;
    /// The current descriptor's generation.
    std::uint64_t generation() const;
    /// All bytes of a container, which must be there.
    std::string container(unsigned long generation) const;
    /// The rows of the current container, free ones as well.
    std::vector<std::string> rows() const;

private:
    std::string name;
    unsigned long version;
    std::string trustee;
};

/// The content with zero bytes behind it, up to this size.
std::string padded(std::string content, std::size_t size);

/// A container of these rows, with the bytes around them.
std::string containerOf(const std::vector<std::string>& rows);

/// Entries that are numbered and of one length each, for tables of some size.
Entry numbered(unsigned number);
Entries numberedUpTo(unsigned count);

/// All entries in ascending order.
Entries sortedEntries(NamedStringArray& array);

/// The ids of all System V segments that the kernel has, whoever may use them.
std::vector<int> kernelSegments();

/// Goes to where no segments are, and where an operation that is repeated takes the same steps
/// again: the kernel numbers segments in a circle, and to look through them takes as many steps as
/// the highest number is.
void forgetAllSegments();

/// Has the caller's user clear away what others removed of its segments of the friends'.
void useSharedMemoryOfFriends();

/// Expects the call to write exactly these messages to the registry's channel, with these
/// severities, and nothing to any other.
using Message = std::pair<unsigned, std::string>;
void expectMessages(const std::function<void()>& call, const std::vector<Message>& messages);

/// Runs the body in a child as that user, and expects that all went well there.
void as(const std::string& user, const std::function<void()>& body);

/// A test with a table of its own, private, and no segments before and after it.
class NamedStringArrayTest : public testing::Test {
protected:
    void TearDown() override;

    /// The test's own.
    const std::string name = testing::UnitTest::GetInstance()->current_test_info()->name();
    const RawTable table{name};
    NamedStringArray array{name, 0, ""};
};

/// The tests that act as several users, who share tables of "friends".
class NamedStringArrayUsersTest : public NamedStringArrayTest {
protected:
    void SetUp() override;

    const RawTable shared{name, 0, "friends"};
};

} // namespace tests
