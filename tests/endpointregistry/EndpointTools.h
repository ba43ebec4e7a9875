#pragma once

#include "endpointregistry/Endpoint.h"
#include "foundation/os/FileDescriptor.h"

#include <climits>
#include <gtest/gtest.h>
#include <string>
#include <sys/types.h>
#include <utility>
#include <vector>

namespace tests {

using DataPair = agent::spf::endpointregistry::Endpoint::DataPair;
using DataPairs = std::vector<DataPair>;

/// Where the calling user's entry of this name is.
std::string entryFolder();
std::string entryPath(const std::string& name);
std::string segmentPath(const std::string& name);

/// The names of all files in the calling user's entry folder; none where there is no folder.
std::vector<std::string> entryFiles();

/// Where the calling user's hints to entries are, and that of a group tag and a selected key.
std::string hintFolder();
std::string hintPath(const std::string& groupTag, const std::string& selectedKey);

/// The names of all hints of the calling user; none where there is no folder.
std::vector<std::string> hintFiles();

/// The names of all segments of shared memory, whoever owns them.
std::vector<std::string> segmentFiles();

/// All bytes of a file.
std::string contentOf(const std::string& path);

/// An id that is no process's, now or later.
inline constexpr pid_t noProcess = INT_MAX;

/// The name under which a process with this id publishes.
std::string entryName(const DataPair& data, const std::string& groupTag,
                      const std::string& selectedKey, pid_t publisher);

/// The bytes of a data segment, made without the library.
std::string segmentBytes(const DataPair& data, char ready = 1);

/// Makes the calling user's entry folder, unless it is there.
void provideEntryFolder();

/// Makes a segment, as a publisher would but without the library.
void plantSegment(const std::string& name, const std::string& bytes);

/// An entry made without the library. What is left of it goes with the object.
class PlantedEntry {
public:
    /// Makes the file and the segment as a dead publisher leaves them; no segment without bytes.
    PlantedEntry(std::string entry, const std::string& bytes);
    ~PlantedEntry();

    PlantedEntry(const PlantedEntry&) = delete;
    PlantedEntry& operator=(const PlantedEntry&) = delete;

    /// Locks the file, as a publisher does while it lives.
    PlantedEntry& hold();

    const std::string& name() const { return entry; }
    bool hasFile() const;
    bool hasSegment() const;

private:
    std::string entry;
    foundation::os::FileDescriptor file;
};

/// A test that starts with an empty registry, and fails when it leaves anything in one.
class RegistryTest : public testing::Test {
protected:
    void SetUp() override;
    void TearDown() override;
};

} // namespace tests
