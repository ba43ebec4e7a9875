#include "tests/endpointregistry/SharingTools.h"

#include "endpointregistry/NamedStringArray.h"
#include "tests/endpointregistry/EndpointProcesses.h"
#include "tests/endpointregistry/FoldersTools.h"
#include "tests/endpointregistry/LockedFileTools.h"
#include "tests/support/TestAccounts.h"

#include <cerrno>
#include <filesystem>
#include <sstream>
#include <system_error>
#include <unistd.h>

namespace tests {

namespace {

namespace fs = std::filesystem;
using agent::spf::endpointregistry::Endpoint;
using agent::spf::endpointregistry::NamedStringArray;

std::string join(const Trustees& trustees) {
    std::string text;
    for (const std::string& trustee : trustees) {
        text += trustee + "\n";
    }
    return text;
}

Trustees split(const std::string& text) {
    Trustees trustees;
    std::istringstream lines(text);
    for (std::string line; std::getline(lines, line);) {
        trustees.insert(line);
    }
    return trustees;
}

void serve(Channel& test, Endpoint& endpoint) {
    for (std::string order = test.receive(); order != "end"; order = test.receive()) {
        const Trustees trustees = split(order.substr(1));
        if (order.front() == '+') {
            endpoint.addTrustees(trustees);
        } else {
            endpoint.removeTrustees(trustees);
        }
        test.send("done");
    }
}

} // namespace

void as(const std::string& user, const std::function<void()>& body) {
    EXPECT_EQ(runInChild([&] {
                  accounts::become(user);
                  body();
              }),
              0)
        << user;
}

Names sharedEntries(const std::string& trustee) {
    const std::string folder = sharedFolder(entryParent, trustee);
    return ::access(folder.c_str(), F_OK) == 0 ? namesIn(folder) : Names();
}

std::string sharedPath(const std::string& trustee, const std::string& name) {
    return sharedFolder(entryParent, trustee) + name;
}

std::string recordFolder(const std::string& trustee) {
    return sharedTop + "/" + segmentParent + "/" + std::to_string(accounts::groupId(trustee)) + "/";
}

std::string baseRecord(const std::string& trustee) {
    return recordFolder(trustee) + tableName + "v0@g" + trustee;
}

Names records(const std::string& trustee) {
    const std::string folder = recordFolder(trustee);
    return ::access(folder.c_str(), F_OK) == 0 ? namesIn(folder) : Names();
}

std::string tableLock(const std::string& trustee) {
    return sharedFolder(tableParent, trustee) + "baseLock";
}

Rows rowsOf(const std::string& trustee) {
    return NamedStringArray(tableName, 0, trustee).filter({});
}

std::vector<KernelSegment> kernelSegments() {
    struct shm_info info {};
    void* const address = &info;
    const int last = ::shmctl(0, SHM_INFO, static_cast<shmid_ds*>(address));
    std::vector<KernelSegment> segments;
    for (int index = 0; index <= last; ++index) {
        shmid_ds status{};
        const int id = ::shmctl(index, SHM_STAT_ANY, &status);
        if (id != -1 && (status.shm_perm.mode & SHM_DEST) == 0) {
            segments.push_back({id, status});
        }
    }
    return segments;
}

void removeSegmentsOf(const std::string& user,
                      const std::function<bool(const KernelSegment&)>& isWanted) {
    for (const KernelSegment& segment : kernelSegments()) {
        if (segment.status.shm_perm.cuid == accounts::userId(user) && isWanted(segment)) {
            ::shmctl(segment.id, IPC_RMID, nullptr);
        }
    }
}

void logOut(const std::string& user) {
    removeSegmentsOf(user, [](const KernelSegment&) { return true; });
    for (const std::string& name : namesIn("/dev/shm")) {
        if (statusOf("/dev/shm/" + name).st_uid == accounts::userId(user)) {
            fs::remove_all("/dev/shm/" + name);
        }
    }
}

void useShortly(const std::string& user, const std::string& trustee) {
    as(user, [&trustee] {
        Endpoint endpoint({"for a", "moment"}, "short use", "key");
        endpoint.addTrustees({trustee});
    });
}

void expectNothingShared(const std::string& trustee) {
    EXPECT_EQ(sharedEntries(trustee), Names()) << trustee;
    EXPECT_EQ(rowsOf(trustee), Rows()) << trustee;
}

Sharer::Sharer(const std::string& user, const DataPair& data, const std::string& tag,
               const std::string& key, const Trustees& trustees)
    : process([&](Channel& test) {
        accounts::become(user);
        Endpoint endpoint(data, tag, key);
        endpoint.addTrustees(trustees);
        test.send("shared");
        serve(test, endpoint);
    })
    , entry(entryName(data, tag, key, process.pid())) {
    process.channel().receive();
}

void Sharer::killWithoutReaping() {
    tests::killWithoutReaping(process);
}

void Sharer::end() {
    process.channel().send("end");
    EXPECT_EQ(process.waitForExit(), 0);
}

void Sharer::ask(const std::string& what, const Trustees& trustees) {
    process.channel().send(what + join(trustees));
    EXPECT_EQ(process.channel().receive(), "done");
}

void SharingTest::SetUp() {
    if (!accounts::available()) {
        GTEST_SKIP() << accounts::whyNot;
    }
    startAfresh();
}

void SharingTest::TearDown() {
    if (accounts::available()) {
        clearMachine();
    }
}

void SharingTest::startAfresh() {
    clearMachine();
    provideSharedFolder();
}

void SharingTest::clearMachine() {
    fs::remove_all("/home/Shared");
    for (const std::string& name : namesIn("/dev/shm")) {
        fs::remove_all("/dev/shm/" + name);
    }
    for (const KernelSegment& segment : kernelSegments()) {
        ::shmctl(segment.id, IPC_RMID, nullptr);
    }
}

} // namespace tests
