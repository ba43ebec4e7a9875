#include "endpointregistry/Endpoint.h"

#include "tests/endpointregistry/EndpointHintTools.h"
#include "tests/endpointregistry/EndpointTools.h"
#include "tests/support/ForkedProcess.h"
#include "tests/support/LogCapture.h"

#include <cerrno>
#include <filesystem>
#include <functional>
#include <gtest/gtest.h>
#include <seccomp.h>
#include <string>
#include <vector>

using namespace agent::spf::endpointregistry;
using tests::DataPair;
using tests::DataPairs;

namespace {

const DataPair data("ab", "c");
const std::string tag = "tag";
const std::string key = "key";

/// Of a call that this process makes, whose first argument is a path.
std::string pathOf(const tests::PendingCall& call) {
    // NOLINTNEXTLINE(performance-no-int-to-ptr): as the kernel tells it
    return reinterpret_cast<const char*>(call.arguments[0]);
}

class RefusedHint : public tests::RegistryTest {
protected:
    /// Expects that an entry is published, found and withdrawn where calls fail, as `refuse` has
    /// them do, and that nobody is told.
    static void expectNotNeededWhere(const std::function<void()>& refuse) {
        EXPECT_EQ(tests::runInChild([&] {
                      const tests::LogCapture log;
                      refuse();
                      Endpoint endpoint(data, tag, key);
                      EXPECT_EQ(Endpoint::find(tag, key), data);
                      EXPECT_EQ(Endpoint::list(), DataPairs{data});
                      endpoint.reset();
                      EXPECT_EQ(Endpoint::find(tag, key), std::nullopt);
                      for (const tests::LogRecord& record : log.records()) {
                          EXPECT_LT(record.severity, 256U) << record.message;
                      }
                  }),
                  0);
        EXPECT_EQ(tests::entryFiles(), std::vector<std::string>());
        EXPECT_EQ(tests::segmentFiles(), std::vector<std::string>());
    }

    static void expectNotNeeded(const std::vector<int>& calls, int error) {
        expectNotNeededWhere([&] { tests::refuseCalls(calls, error); });
    }
};

} // namespace

TEST_F(RefusedHint, IsNotMissedWhereNoLinkCanBeMade) {
    for (const int error : {ENOSPC, EDQUOT, EROFS, EPERM, ENOMEM, EIO}) {
        expectNotNeeded({SCMP_SYS(symlink), SCMP_SYS(symlinkat)}, error);
    }
    EXPECT_EQ(tests::hintFiles(), std::vector<std::string>());
}

TEST_F(RefusedHint, IsNotMissedWhereNoLinkCanBeRead) {
    for (const int error : {EACCES, EIO, ENOMEM, EINVAL}) {
        expectNotNeeded({SCMP_SYS(readlink), SCMP_SYS(readlinkat)}, error);
    }
}

TEST_F(RefusedHint, IsNotMissedWhereItsFolderCannotBeMade) {
    tests::provideEntryFolder();
    for (const int error : {ENOSPC, EACCES}) {
        expectNotNeeded({SCMP_SYS(mkdir), SCMP_SYS(mkdirat)}, error);
    }
    EXPECT_FALSE(std::filesystem::exists(tests::hintFolder()));
}

TEST_F(RefusedHint, IsRemovedByTheNextToLookWhereItsPublisherCouldNot) {
    tests::provideEntryFolder();
    expectNotNeededWhere([] {
        tests::refuseCalls({SCMP_SYS(unlink)}, [](const tests::PendingCall& call) {
            return pathOf(call) == tests::hintPath(tag, key) ? EPERM : 0;
        });
    });
    EXPECT_EQ(tests::hintFiles().size(), 1U);
    EXPECT_EQ(Endpoint::find(tag, key), std::nullopt);
    EXPECT_EQ(tests::hintFiles(), std::vector<std::string>());
}
