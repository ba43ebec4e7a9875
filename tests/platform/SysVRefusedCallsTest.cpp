#include "tests/endpointregistry/FoldersRefusedCalls.h"
#include "tests/platform/SysVTools.h"

#include <cerrno>
#include <filesystem>
#include <functional>
#include <gtest/gtest.h>
#include <seccomp.h>
#include <stdexcept>
#include <sys/ipc.h>

namespace {

namespace sysv = tests::sysv;
using sysv::create;
using sysv::createOrFind;
using sysv::find;
using tests::SharedMemory;

/// Processes that a security policy denies what the permissions of segments grant.
class SysVRefusedCalls : public sysv::SysVTest {
protected:
    static void withRefused(int call, int error, const std::function<void()>& body) {
        EXPECT_EQ(tests::runInChild([&] {
                      tests::refuseCalls({call}, error);
                      body();
                  }),
                  0);
    }
};

TEST_F(SysVRefusedCalls, AreErrorsWhereASegmentCannotBeMade) {
    for (const int error : {EACCES, EPERM, ENOMEM, ENOSPC}) {
        withRefused(SCMP_SYS(shmget), error, [] {
            EXPECT_THROW(create("name"), std::runtime_error);
            EXPECT_THROW(createOrFind("name"), std::runtime_error);
        });
    }
    EXPECT_EQ(sysv::allRecords().size(), 0U);
}

TEST_F(SysVRefusedCalls, AreErrorsWhereASegmentCannotBeAttachedTo) {
    for (const int error : {ENOMEM, EPERM}) {
        withRefused(SCMP_SYS(shmat), error, [] {
            EXPECT_THROW(create("name"), std::runtime_error);
            EXPECT_THROW(createOrFind("name"), std::runtime_error);
            EXPECT_FALSE(find("name").isAttached());
        });
        const SharedMemory made = create("name");
        withRefused(SCMP_SYS(shmat), error, [] {
            EXPECT_THROW(find("name"), std::runtime_error);
            EXPECT_THROW(create("name"), std::runtime_error);
            EXPECT_THROW(createOrFind("name"), std::runtime_error);
        });
        EXPECT_TRUE(made.isStillNamed());
        EXPECT_EQ(sysv::onlySegment().attachments, 1U);
        EXPECT_EQ(sysv::allRecords().size(), 1U);
    }
}

TEST_F(SysVRefusedCalls, AreErrorsWhereARecordCannotBeWrittenOrNamed) {
    for (const int call :
         {SCMP_SYS(flock), SCMP_SYS(pwrite64), SCMP_SYS(fchmod), SCMP_SYS(renameat2)}) {
        SCOPED_TRACE(call);
        create("name"); // The folder is there.
        withRefused(call, EPERM, [] {
            EXPECT_THROW(create("name"), std::runtime_error);
            EXPECT_THROW(createOrFind("name"), std::runtime_error);
        });
        EXPECT_EQ(sysv::segments().size(), 0U);
        EXPECT_EQ(sysv::allRecords().size(), 0U);
    }
}

TEST_F(SysVRefusedCalls, AreErrorsWhereThereIsNoRandomness) {
    withRefused(SCMP_SYS(getrandom), ENOSYS, [] {
        EXPECT_THROW(create("name"), std::runtime_error);
        EXPECT_FALSE(find("name").isAttached());
    });
    EXPECT_EQ(sysv::segments().size(), 0U);
}

TEST_F(SysVRefusedCalls, DoNotLoseWhatIsLeftToClearUp) {
    // What cannot be looked at now is looked at another time.
    create("name").makePersistent();
    const auto record = sysv::readRecord(sysv::recordOf("name"));
    std::filesystem::rename(sysv::recordOf("name"), sysv::recordFolder() + ".unnamed-left");
    withRefused(SCMP_SYS(shmat), ENOMEM, [] { EXPECT_THROW(create("name"), std::runtime_error); });
    EXPECT_EQ(sysv::onlySegment().id, record.id);
    EXPECT_EQ(sysv::hiddenRecords().size(), 1U);
    sysv::useTheService();
}

TEST_F(SysVRefusedCalls, AreErrorsWhereASegmentCannotBeGivenItsMode) {
    // EINVAL is also what a group that the process's user namespace lacks leads to.
    for (const int error : {EINVAL, EPERM}) {
        EXPECT_EQ(tests::runInChild([error] {
                      tests::refuseCalls({SCMP_SYS(shmctl)}, [error](const auto& call) {
                          constexpr std::size_t command = 1;
                          return call.arguments.at(command) == IPC_SET ? error : 0;
                      });
                      EXPECT_THROW(create("name"), std::runtime_error);
                      EXPECT_THROW(createOrFind("name"), std::runtime_error);
                  }),
                  0);
    }
    EXPECT_EQ(sysv::segments().size(), 0U);
}

} // namespace
