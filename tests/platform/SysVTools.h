#pragma once

#include "sharedmemory/SharedMemory.h"
#include "tests/platform/RecordTools.h"
#include "tests/platform/SharedMemoryTools.h"
#include "tests/support/ForkedProcess.h"
#include "tests/support/SharedFolder.h"
#include "tests/support/TestAccounts.h"

#include <algorithm>
#include <cerrno>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <gtest/gtest.h>
#include <string>
#include <sys/ipc.h>
#include <sys/mman.h>
#include <sys/shm.h>
#include <system_error>
#include <unistd.h>
#include <vector>

/// Segments of System V shared memory: those of the service, and what the kernel says of them.
namespace tests::sysv {

inline constexpr auto implementation = SharedMemory::ImplementationSpecifications::SysV;

inline SharedMemory create(const std::string& name, std::size_t size = someSize,
                           const std::string& trustee = "") {
    return SharedMemory::create(name, size, trustee, implementation);
}

inline SharedMemory find(const std::string& name, std::size_t size = someSize,
                         const std::string& trustee = "") {
    return SharedMemory::find(name, size, trustee, implementation);
}

inline SharedMemory createOrFind(const std::string& name, std::size_t size = someSize,
                                 const std::string& trustee = "") {
    return SharedMemory::createOrFind(name, size, trustee, implementation);
}

inline SharedMemory createForFriends(const std::string& name) {
    return create(name, someSize, accounts::friends);
}

inline SharedMemory findForFriends(const std::string& name) {
    return find(name, someSize, accounts::friends);
}

inline SharedMemory createOrFindForFriends(const std::string& name) {
    return createOrFind(name, someSize, accounts::friends);
}

inline void demand(bool isDone, const std::string& what) {
    if (!isDone) {
        throw std::system_error(errno, std::generic_category(), what);
    }
}

/// A segment as the kernel knows it.
struct KernelSegment {
    int id;
    key_t key;
    uid_t owner;
    uid_t creator;
    gid_t group;
    mode_t mode;
    std::size_t size;
    unsigned long attachments;

    bool operator==(const KernelSegment&) const = default;
};

/// All there are, whoever may use them.
inline std::vector<KernelSegment> segments() {
    std::vector<KernelSegment> found;
    shmid_ds status{};
    // The kernel fills another structure for this one than the function's type says.
    const int highest = ::shmctl(0, SHM_INFO, &status);
    for (int index = 0; index <= highest; ++index) {
        const int id = ::shmctl(index, SHM_STAT_ANY, &status);
        if (id != -1) {
            const ipc_perm& permissions = status.shm_perm;
            found.push_back({id, permissions.__key, permissions.uid, permissions.cuid,
                             permissions.gid, static_cast<mode_t>(permissions.mode),
                             status.shm_segsz, status.shm_nattch});
        }
    }
    return found;
}

/// The only one there is.
inline KernelSegment onlySegment() {
    const auto all = segments();
    EXPECT_EQ(all.size(), 1U);
    return all.at(0);
}

/// The bytes of a segment, which the caller may read.
inline std::string contentOf(int id) {
    shmid_ds status{};
    demand(::shmctl(id, IPC_STAT, &status) == 0, "shmctl");
    void* const address = ::shmat(id, nullptr, SHM_RDONLY);
    // NOLINTNEXTLINE: the system call's own mark of failure
    demand(address != reinterpret_cast<void*>(-1), "shmat");
    std::string content(static_cast<const char*>(address), status.shm_segsz);
    ::shmdt(address);
    return content;
}

/// Makes a segment that has no key as any other program might, and returns its id.
inline int plant(mode_t mode, const std::string& content) {
    const int id = ::shmget(IPC_PRIVATE, content.size(), IPC_CREAT | static_cast<int>(mode));
    demand(id != -1, "shmget");
    void* const address = ::shmat(id, nullptr, 0);
    // NOLINTNEXTLINE: the system call's own mark of failure
    demand(address != reinterpret_cast<void*>(-1), "shmat");
    std::copy(content.begin(), content.end(), static_cast<char*>(address));
    ::shmdt(address);
    return id;
}

/// Gives a segment away, as far as its owner may.
inline void giveTo(int id, uid_t owner, gid_t group, mode_t mode) {
    shmid_ds status{};
    demand(::shmctl(id, IPC_STAT, &status) == 0, "shmctl");
    status.shm_perm.uid = owner;
    status.shm_perm.gid = group;
    status.shm_perm.mode = static_cast<decltype(status.shm_perm.mode)>(mode);
    demand(::shmctl(id, IPC_SET, &status) == 0, "shmctl");
}

inline void removeFromKernel(int id) {
    demand(::shmctl(id, IPC_RMID, nullptr) == 0, "shmctl");
}

/// Uses the service for this trustee so that it tidies up: makes something that does not stay.
inline void useTheServiceFor(const std::string& trustee) {
    SharedMemory memory = create("something else", someSize, trustee);
    if (!memory.isAttached()) {
        memory = find("something else", someSize, trustee); // Of one that was killed at this.
    }
    memory.markForDeletion();
}

inline void useTheService() {
    useTheServiceFor("");
}

inline void useTheServiceForFriends() {
    useTheServiceFor(accounts::friends);
}

/// Runs `body` in a child as this user and expects it to succeed.
inline void as(const std::string& user, const std::function<void()>& body) {
    EXPECT_EQ(runInChild([&] {
                  accounts::become(user);
                  body();
              }),
              0)
        << user;
}

/// A process of this user that keeps what it makes until it is told to end.
class Owner {
public:
    Owner(const std::string& user, const std::string& name, const std::string& trustee,
          std::uint8_t content = 7)
        : process([&](Channel& channel) {
            accounts::become(user);
            const SharedMemory memory = create(name, someSize, trustee);
            EXPECT_TRUE(memory.isCreator());
            EXPECT_EQ(memory.getTrustee(), trustee);
            bytesOf(memory)[0] = content;
            channel.send("made");
            channel.receive();
            EXPECT_TRUE(memory.isStillNamed());
        }) {
        process.channel().receive();
    }

    void end() {
        process.channel().send("end");
        EXPECT_EQ(process.waitForExit(), 0);
    }

private:
    ForkedProcess process;
};

/// Something of zero bytes that a test shares with its children.
template<typename Content>
class Shared {
public:
    Shared()
        : content(static_cast<Content*>(::mmap(nullptr, sizeof(Content), PROT_READ | PROT_WRITE,
                                               MAP_SHARED | MAP_ANONYMOUS, -1, 0))) {
        demand(content != MAP_FAILED, "mmap");
    }
    ~Shared() { ::munmap(content, sizeof(Content)); }
    Shared(const Shared&) = delete;
    Shared& operator=(const Shared&) = delete;

    Content& operator*() const { return *content; }
    Content* operator->() const { return content; }

private:
    Content* content;
};

/// Takes away whatever the service keeps, in the kernel and in folders.
inline void removeAllSegments() {
    for (const auto& segment : segments()) {
        ::shmctl(segment.id, IPC_RMID, nullptr);
    }
    removeAllRecordFolders();
}

/// Expects every test to leave the kernel without segments, and no record of any.
class SysVTest : public testing::Test {
protected:
    void SetUp() override { provideSharedFolder(); }

    void TearDown() override {
        EXPECT_EQ(segments().size(), 0U);
        EXPECT_EQ(allRecords(), std::vector<std::string>());
        removeAllSegments();
    }
};

/// The tests that act as several users.
class SysVUsersTest : public SysVTest {
protected:
    void SetUp() override {
        if (!accounts::available()) {
            GTEST_SKIP() << accounts::whyNot;
        }
        SysVTest::SetUp();
    }
};

} // namespace tests::sysv
