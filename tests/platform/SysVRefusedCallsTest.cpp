#include "tests/endpointregistry/FoldersRefusedCalls.h"
#include "tests/platform/SysVTools.h"

#include <cerrno>
#include <functional>
#include <gtest/gtest.h>
#include <seccomp.h>
#include <stdexcept>
#include <sys/ipc.h>
#include <vector>

namespace {

namespace sysv = tests::sysv;
using sysv::create;
using sysv::createOrFind;
using sysv::find;
using tests::SharedMemory;

/// Processes that a security policy denies what the permissions of segments grant.
class SysVRefusedCalls : public sysv::SysVTest {
protected:
    /// Runs the body in a child that may not look up any key that a segment has.
    static void withoutLookups(int error, const std::function<void()>& body) {
        EXPECT_EQ(tests::runInChild([&] {
                      tests::refuseCalls({SCMP_SYS(shmget)}, [error](const auto& call) {
                          constexpr std::size_t flags = 2;
                          return call.arguments.at(flags) == 0 ? error : 0;
                      });
                      body();
                  }),
                  0);
    }
};

TEST_F(SysVRefusedCalls, AreErrorsWhereASegmentWithTheKeyIs) {
    const SharedMemory made = create("name");
    for (const int error : {EACCES, EPERM, ENOMEM}) {
        withoutLookups(error, [] {
            EXPECT_THROW(find("name"), std::runtime_error);
            EXPECT_THROW(create("name"), std::runtime_error);
            EXPECT_THROW(createOrFind("name"), std::runtime_error);
        });
    }
    EXPECT_EQ(sysv::onlySegment().attachments, 1U);
    EXPECT_TRUE(made.isStillNamed());
}

TEST_F(SysVRefusedCalls, AreErrorsWhereNoSegmentIs) {
    withoutLookups(EACCES, [] {
        EXPECT_THROW(find("name"), std::runtime_error);
        EXPECT_THROW(create("name"), std::runtime_error);
        EXPECT_THROW(createOrFind("name"), std::runtime_error);
    });
    EXPECT_EQ(sysv::segments().size(), 0U);
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
