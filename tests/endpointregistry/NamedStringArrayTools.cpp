#include "tests/endpointregistry/NamedStringArrayTools.h"

#include "tests/endpointregistry/LockedFileTools.h"
#include "tests/support/ForkedProcess.h"
#include "tests/support/LogCapture.h"
#include "tests/support/TestAccounts.h"

#include <algorithm>
#include <cstring>
#include <sched.h>
#include <stdexcept>
#include <sys/ipc.h>
#include <sys/shm.h>

namespace tests {

namespace registry = agent::spf::endpointregistry;

namespace {

constexpr auto sysv = SharedMemory::ImplementationSpecifications::SysV;
constexpr std::size_t overhead = 9;
constexpr std::size_t firstRow = 8;

void demandAttached(const SharedMemory& segment, const std::string& name) {
    if (!segment.isAttached()) {
        throw std::runtime_error("There is no segment " + name + ".");
    }
}

std::string contentOf(const SharedMemory& segment) {
    return {static_cast<const char*>(segment.getPointer()), segment.getSize()};
}

void removeAllSegments() {
    for (const int id : kernelSegments()) {
        ::shmctl(id, IPC_RMID, nullptr);
    }
}

} // namespace

RawTable::RawTable(std::string name, unsigned long version, std::string trustee)
    : name(std::move(name))
    , version(version)
    , trustee(std::move(trustee)) {
}

NamedStringArray RawTable::array() const {
    return {name, version, trustee};
}

Dimensions RawTable::dimensions() const {
    return registry::getNamedStringArrayDimensions(name, version, trustee);
}

void RawTable::remove() const {
    registry::deleteNamedStringArray(name, version, trustee);
}

registry::LockedFile RawTable::lock() const {
    return registry::LockedFile::getLock("baseLock", "qvNamedStringArray", trustee);
}

std::string RawTable::baseName() const {
    return name + "v" + std::to_string(version);
}

std::string RawTable::containerName(unsigned long generation) const {
    return baseName() + std::to_string(generation);
}

SharedMemory RawTable::findBase() const {
    return SharedMemory::find(baseName(), sizeof(BaseContent), trustee, sysv);
}

SharedMemory RawTable::findContainer(unsigned long generation, std::size_t size) const {
    return SharedMemory::find(containerName(generation), size, trustee, sysv);
}

bool RawTable::hasContainer(unsigned long generation) const {
    return findContainer(generation).isAttached();
}

void RawTable::plantBase(const BaseContent& content) const {
    SharedMemory segment = SharedMemory::createOrFind(baseName(), sizeof(content), trustee, sysv);
    segment.makePersistent();
    std::memcpy(segment.getPointer(), &content, sizeof(content));
}

void RawTable::plantContainer(unsigned long generation, const std::string& content) const {
    findContainer(generation).markForDeletion();
    SharedMemory segment =
        SharedMemory::create(containerName(generation), content.size(), trustee, sysv);
    demandAttached(segment, containerName(generation));
    segment.makePersistent();
    std::memcpy(segment.getPointer(), content.data(), content.size());
}

void RawTable::plant(unsigned long generation, unsigned long width,
                     const std::vector<std::string>& rows) const {
    plantBase({.initializer = 1,
               .flags = 1,
               .width = {width, 0},
               .length = {rows.size(), 0},
               .generation = {generation, 0}});
    plantContainer(generation, containerOf(rows));
}

BaseContent RawTable::base() const {
    const SharedMemory segment = findBase();
    demandAttached(segment, baseName());
    BaseContent content;
    std::memcpy(&content, segment.getPointer(), sizeof(content));
    return content;
}

void RawTable::setBase(const BaseContent& content) const {
    demandAttached(findBase(), baseName());
    plantBase(content);
}

std::uint64_t RawTable::generation() const {
    const BaseContent content = base();
    return content.generation.at(content.index);
}

std::string RawTable::container(unsigned long generation) const {
    const SharedMemory segment = findContainer(generation);
    demandAttached(segment, containerName(generation));
    return contentOf(segment);
}

std::vector<std::string> RawTable::rows() const {
    const BaseContent content = base();
    const std::size_t width = content.width.at(content.index);
    const std::string bytes = container(generation());
    std::vector<std::string> rows;
    for (std::size_t row = 0; row < content.length.at(content.index); ++row) {
        rows.push_back(bytes.substr(firstRow + row * width, width));
    }
    return rows;
}

std::string padded(std::string content, std::size_t size) {
    content.resize(std::max(size, content.size()));
    return content;
}

std::string containerOf(const std::vector<std::string>& rows) {
    std::string content(firstRow, '\0');
    for (const std::string& row : rows) {
        content += row;
    }
    return content.append(overhead - firstRow, '\0');
}

Entry numbered(unsigned number) {
    return {"entry " + std::to_string(100 + number), "second"};
}

Entries numberedUpTo(unsigned count) {
    Entries entries;
    for (unsigned number = 0; number < count; ++number) {
        entries.push_back(numbered(number));
    }
    return entries;
}

Entries sortedEntries(NamedStringArray& array) {
    Entries entries = array.filter({});
    std::sort(entries.begin(), entries.end());
    return entries;
}

std::vector<int> kernelSegments() {
    std::vector<int> ids;
    shmid_ds status{};
    // The kernel fills another structure for this one than the function's type says.
    const int highest = ::shmctl(0, SHM_INFO, &status);
    for (int index = 0; index <= highest; ++index) {
        if (const int id = ::shmctl(index, SHM_STAT_ANY, &status); id != -1) {
            ids.push_back(id);
        }
    }
    return ids;
}

void forgetAllSegments() {
    // Without the right to a namespace of its own, a process takes about the same steps at least.
    if (::unshare(CLONE_NEWIPC) != 0) {
        removeAllSegments();
    }
}

void useSharedMemoryOfFriends() {
    EXPECT_TRUE(SharedMemory::create("something else", 1, accounts::friends, sysv).isCreator());
}

void expectMessages(const std::function<void()>& call, const std::vector<Message>& messages) {
    const LogCapture log;
    call();
    std::vector<LogRecord> expected;
    for (const auto& [severity, message] : messages) {
        expected.push_back({registryChannel, severity, message});
    }
    const std::vector<LogRecord> written = log.records();
    EXPECT_EQ(written, expected) << (written.empty() ? "nothing written" : written.back().message);
}

void as(const std::string& user, const std::function<void()>& body) {
    EXPECT_EQ(runInChild([&] {
                  accounts::become(user);
                  body();
              }),
              0)
        << user;
}

void NamedStringArrayTest::TearDown() {
    removeAllSegments();
}

void NamedStringArrayUsersTest::SetUp() {
    if (!accounts::available()) {
        GTEST_SKIP() << accounts::whyNot;
    }
    provideSharedFolder();
}

} // namespace tests
