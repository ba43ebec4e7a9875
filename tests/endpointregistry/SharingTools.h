#pragma once

#include "endpointregistry/Endpoint.h"
#include "tests/endpointregistry/EndpointTools.h"
#include "tests/support/ForkedProcess.h"

#include <functional>
#include <gtest/gtest.h>
#include <set>
#include <string>
#include <sys/shm.h>
#include <sys/types.h>
#include <vector>

/// What tests of entries that are shared with groups have in common.
namespace tests {

using Trustees = std::set<std::string>;
using Names = std::vector<std::string>;
using Rows = std::vector<std::vector<std::string>>;

/// The sub-folders of the registry that hold the entries, the locks of tables, and the records of
/// segments.
inline const std::string entryParent = "qvEndpointRegistry";
inline const std::string tableParent = "qvNamedStringArray";
inline const std::string segmentParent = "qvSharedMemory";
/// The name of the table that each group has of its entries; its version is 0.
inline const std::string tableName = "qvEndpointRegistrySysV";

/// Where every user may put folders, and all shared folders are.
inline const std::string sharedTop = "/home/Shared/Corvantis";

/// Runs the body in a child as that user, and expects that all went well there.
void as(const std::string& user, const std::function<void()>& body);

/// The names of all files in a group's entry folder, hidden ones too; none where there is no
/// folder. For its members, and root.
Names sharedEntries(const std::string& trustee);

/// The path of an entry's file in a group's folder.
std::string sharedPath(const std::string& trustee, const std::string& name);

/// Where the records of a group's segments are, with a trailing separator, and the path of that of
/// the base of its table of entries.
std::string recordFolder(const std::string& trustee);
std::string baseRecord(const std::string& trustee);

/// The names of all of these records, hidden ones too; none where there is no folder. For the
/// group's members, and root.
Names records(const std::string& trustee);

/// The path of the lock of a group's tables.
std::string tableLock(const std::string& trustee);

/// All rows of a group's table. For its members.
Rows rowsOf(const std::string& trustee);

/// A segment of System V shared memory, as the system describes it.
struct KernelSegment {
    int id;
    shmid_ds status;
};

/// All of them, whoever made them.
std::vector<KernelSegment> kernelSegments();

/// Removes those that a user has made and that are wanted, as root.
void removeSegmentsOf(const std::string& user,
                      const std::function<bool(const KernelSegment&)>& isWanted);

/// The size of the base of a table as the kernel knows it; no container of a test has it.
inline constexpr std::size_t baseSize = 56 + 16;
inline bool isBase(const KernelSegment& segment) {
    return segment.status.shm_segsz == baseSize;
}

/// Does what a login manager does when a user's last session ends: everything of the user's in
/// shared memory goes, whoever uses it. As root.
void logOut(const std::string& user);

/// Has a user share something with a group, withdraw it, and so clear up its own leftovers.
void useShortly(const std::string& user, const std::string& trustee);

/// Expects that a group's folder and table hold nothing of anybody. For its members.
void expectNothingShared(const std::string& trustee);

/// A user's process that publishes an endpoint, shares it, and keeps it until it is told to end.
class Sharer {
public:
    Sharer(const std::string& user, const DataPair& data, const std::string& tag,
           const std::string& key, const Trustees& trustees);

    void remove(const Trustees& trustees) { ask("-", trustees); }
    void add(const Trustees& trustees) { ask("+", trustees); }

    /// Kills it with SIGKILL, with and without having its parent take note.
    void kill() { process.kill(); }
    void killWithoutReaping();

    /// Ends it, which withdraws everything.
    void end();

    /// The name of its entries.
    const std::string& name() const { return entry; }
    pid_t pid() const { return process.pid(); }

private:
    void ask(const std::string& what, const Trustees& trustees);

    ForkedProcess process;
    std::string entry;
};

/// A test that begins on a machine where nobody ever shared anything but where everybody may. Only
/// root can act as several users.
class SharingTest : public testing::Test {
protected:
    void SetUp() override;
    void TearDown() override;

    static void clearMachine();
    static void startAfresh();
};

} // namespace tests
