#include "endpointregistry/Endpoint.h"

#include "endpointregistry/EntryName.h"
#include "endpointregistry/detail/EndpointPosixImpl.h"
#include "foundation/os/FileDescriptor.h"
#include "tests/endpointregistry/EndpointTools.h"
#include "tests/endpointregistry/FewDescriptors.h"
#include "tests/endpointregistry/LockedFileTools.h"
#include "tests/endpointregistry/LoggersReportedFailure.h"
#include "tests/support/ForkedProcess.h"
#include "tests/support/Sanitizers.h"
#include "tests/support/SmallSharedMemory.h"
#include "tests/support/TestAccounts.h"

#include <algorithm>
#include <cerrno>
#include <exception>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <functional>
#include <gtest/gtest.h>
#include <optional>
#include <stdexcept>
#include <string>
#include <sys/stat.h>
#include <typeinfo>
#include <unistd.h>
#include <utility>
#include <vector>

using namespace agent::spf::endpointregistry;
using foundation::os::FileDescriptor;
using tests::DataPair;
using tests::DataPairs;

namespace {

namespace fs = std::filesystem;
namespace accounts = tests::accounts;

const DataPair data("ab", "c");
const std::string tag = "tag";
const std::string key = "key";

std::string suffix(int error) {
    return "(Error " + std::to_string(error) + ")";
}

/// What a publication that failed for want of something reported.
struct Failure {
    std::string text;
    std::vector<tests::LogRecord> log;
};

/// Expects the call to succeed, or to fail as a refusal of the system does: reported before it is
/// thrown, with errno, and not as a duplicate.
std::optional<Failure> failureOf(const std::function<void()>& call, int error) {
    const tests::LogCapture log;
    try {
        call();
        return std::nullopt;
    } catch (const std::exception& thrown) {
        EXPECT_EQ(typeid(thrown), typeid(std::runtime_error)) << thrown.what();
        Failure failure{thrown.what(), log.records()};
        EXPECT_FALSE(failure.log.empty()) << thrown.what();
        for (const tests::LogRecord& record : failure.log) {
            EXPECT_EQ(record.severity, 512U) << record.message;
            EXPECT_NE(record.message.find(suffix(error)), std::string::npos) << record.message;
        }
        return failure;
    }
}

bool tells(const Failure& failure, const std::string& path) {
    return std::any_of(failure.log.begin(), failure.log.end(), [&path](const auto& record) {
        return record.message.find("<" + path + ">") != std::string::npos;
    });
}

class EndpointUnderStrain : public tests::RegistryTest {};

class EndpointWithoutDescriptors : public EndpointUnderStrain {
protected:
    void SetUp() override {
        EndpointUnderStrain::SetUp();
        if (!tests::canDoWithoutDescriptors) {
            GTEST_SKIP() << tests::whyDescriptorsAreNeeded;
        }
        tests::provideEntryFolder();
    }
};

/// Takes ever fewer descriptors away until the call succeeds, and hands over what failed before.
std::vector<Failure> failuresForWantOfDescriptors(const std::function<void()>& call) {
    std::vector<Failure> failures;
    constexpr std::size_t enough = 20;
    for (std::size_t left = 0; left < enough; ++left) {
        tests::ForkedProcess child([&](tests::Channel& parent) {
            std::optional<Failure> failure;
            {
                const auto hoard = tests::leaveDescriptors(left);
                failure = failureOf(call, EMFILE);
            }
            EXPECT_EQ(tests::entryFiles(), std::vector<std::string>());
            EXPECT_EQ(tests::segmentFiles(), std::vector<std::string>());
            parent.send(failure ? failure->text : "");
            if (failure) {
                parent.send(failure->log.empty() ? "" : failure->log.back().message);
            }
        });
        const std::string text = child.channel().receive();
        const std::string message = text.empty() ? "" : child.channel().receive();
        EXPECT_EQ(child.waitForExit(), 0) << "with " << left << " descriptors: " << text;
        if (text.empty()) {
            return failures;
        }
        failures.push_back({text, {{"", 512, message}}});
    }
    ADD_FAILURE() << enough << " descriptors are not enough";
    return failures;
}

} // namespace

TEST_F(EndpointUnderStrain, IsNotOnTheNumberOfAStandardStreamThatIsClosed) {
    EXPECT_EQ(tests::runInChild([] {
                  for (const int stream : {STDIN_FILENO, STDOUT_FILENO, STDERR_FILENO}) {
                      FileDescriptor(stream).reset();
                  }
                  const Endpoint endpoint(data, tag, key);
                  const FileDescriptor null(::open("/dev/null", O_RDWR | O_CLOEXEC));
                  for (const int stream : {STDIN_FILENO, STDOUT_FILENO, STDERR_FILENO}) {
                      ::dup2(null.get(), stream);
                  }
                  EXPECT_EQ(tests::runInChild([] { EXPECT_EQ(Endpoint::find(tag, key), data); }),
                            0);
              }),
              0);
}

TEST_F(EndpointWithoutDescriptors, IsRefusedButNoDuplicate) {
    const auto failures = failuresForWantOfDescriptors([] { const Endpoint made(data, tag, key); });
    ASSERT_FALSE(failures.empty());
    EXPECT_EQ(failures.front().text, "System Error: File system inconsistency");
}

TEST_F(EndpointWithoutDescriptors, TellsWhichFileCouldNotBeMade) {
    const auto failures =
        failuresForWantOfDescriptors([] { const Endpoint::PosixImpl made(data, tag, key, ""); });
    ASSERT_FALSE(failures.empty());
    EXPECT_TRUE(std::any_of(failures.begin(), failures.end(), [](const Failure& failure) {
        return failure.text == "System Error: File system inconsistency" &&
               failure.log.front().message.find("<" + tests::entryFolder() + "qvER") !=
                   std::string::npos;
    }));
}

TEST_F(EndpointWithoutDescriptors, IsNotLookedUpButReported) {
    const auto failures = failuresForWantOfDescriptors([] { Endpoint::list(); });
    ASSERT_FALSE(failures.empty());
    EXPECT_EQ(failures.front().text, "System Error: File system inconsistency");
    EXPECT_EQ(failures.front().log.front().message,
              "LockedFile::filterNames(): Failed to open parent folder. (Error 24)");
}

TEST_F(EndpointWithoutDescriptors, IsWithdrawnAllTheSame) {
    EXPECT_EQ(tests::runInChild([] {
                  std::optional<Endpoint> endpoint(std::in_place, data, tag, key);
                  const auto hoard = tests::leaveDescriptors(0);
                  endpoint.reset();
              }),
              0);
    EXPECT_EQ(tests::entryFiles(), std::vector<std::string>());
    EXPECT_EQ(tests::segmentFiles(), std::vector<std::string>());
}

TEST_F(EndpointWithoutDescriptors, IsNoDeathOfThoseWhoLive) {
    const Endpoint living(data, tag, key);
    const auto files = tests::entryFiles();
    const std::vector<std::function<void()>> calls{
        [] { EXPECT_EQ(Endpoint::find(tag, key), data); },
        [] { EXPECT_EQ(Endpoint::list(), DataPairs{data}); },
        [] { EXPECT_EQ(Endpoint::Impl::countSynonymEndpoints(data, tag, key), 1U); },
        [] {
            try {
                const Endpoint synonym(data, tag, "other key");
                ADD_FAILURE() << "published beside a synonym";
            } catch (const Endpoint::DuplicateEndpointError&) {
                SUCCEED();
            }
        },
    };
    for (const auto& call : calls) {
        std::string outcome = "refused";
        for (std::size_t left = 0; left < 20 && outcome == "refused"; ++left) {
            tests::ForkedProcess child([&](tests::Channel& parent) {
                std::optional<Failure> failure;
                {
                    const auto hoard = tests::leaveDescriptors(left);
                    failure = failureOf(call, EMFILE);
                }
                parent.send(failure ? "refused" : "done");
            });
            outcome = child.channel().receive();
            EXPECT_EQ(child.waitForExit(), 0) << "with " << left << " descriptors";
            EXPECT_EQ(tests::entryFiles(), files);
            EXPECT_EQ(tests::segmentFiles().size(), 1U);
        }
        EXPECT_EQ(outcome, "done");
    }
}

TEST_F(EndpointUnderStrain, LeavesNothingBehindWhereMemoryIsFull) {
    if (!tests::canLimitSharedMemory()) {
        GTEST_SKIP() << "needs a mount namespace in a mount namespace";
    }
    EXPECT_EQ(tests::runInChild([] {
                  tests::limitSharedMemoryTo(1U << 20U);
                  const DataPair large(std::string(2U << 20U, 'x'), "");
                  const auto failure =
                      failureOf([&] { const Endpoint made(large, tag, key); }, ENOSPC);
                  ASSERT_TRUE(failure);
                  EXPECT_EQ(tests::entryFiles(), std::vector<std::string>());
                  EXPECT_EQ(tests::segmentFiles(), std::vector<std::string>());
                  EXPECT_EQ(Endpoint::list(), DataPairs());
                  EXPECT_TRUE(Endpoint(data, tag, key));
              }),
              0);
}

TEST_F(EndpointUnderStrain, LeavesNothingBehindWhereNotOneByteOfMemoryIsLeft) {
    if (!tests::canLimitSharedMemory()) {
        GTEST_SKIP() << "needs a mount namespace in a mount namespace";
    }
    EXPECT_EQ(tests::runInChild([] {
                  tests::limitSharedMemoryTo(1U << 16U);
                  tests::provideEntryFolder();
                  // Outside /dev/shm's own folder, where a segment would be looked for.
                  const std::string filler = tests::privateBase() + "/filler";
                  std::ofstream(filler) << std::string(1U << 20U, 'x') << std::flush;
                  const auto failure =
                      failureOf([] { const Endpoint made(data, tag, key); }, ENOSPC);
                  EXPECT_TRUE(failure);
                  EXPECT_EQ(tests::entryFiles(), std::vector<std::string>());
                  EXPECT_EQ(tests::segmentFiles(), std::vector<std::string>());
                  fs::remove(filler);
                  EXPECT_TRUE(Endpoint(data, tag, key));
              }),
              0);
}

TEST_F(EndpointUnderStrain, IsReportedWhereItsFolderMayNotBeWritten) {
    if (!accounts::available()) {
        GTEST_SKIP() << accounts::whyNot;
    }
    EXPECT_EQ(tests::runInChild([] {
                  accounts::become(accounts::anna);
                  tests::provideEntryFolder();
                  ASSERT_EQ(::chmod(tests::entryFolder().c_str(), 0500), 0);
                  const auto failure =
                      failureOf([] { const Endpoint made(data, tag, key); }, EACCES);
                  ASSERT_TRUE(failure);
                  EXPECT_EQ(failure->text, "System Error: File system inconsistency");
                  EXPECT_TRUE(tells(
                      *failure, tests::entryPath(tests::entryName(data, tag, key, ::getpid()))));
                  EXPECT_EQ(tests::segmentFiles(), std::vector<std::string>());
                  EXPECT_EQ(Endpoint::list(), DataPairs());
                  EXPECT_EQ(::chmod(tests::entryFolder().c_str(), 0700), 0);
              }),
              0);
}

TEST_F(EndpointUnderStrain, IsReportedWhereItsFolderMayNotBeRead) {
    if (!accounts::available()) {
        GTEST_SKIP() << accounts::whyNot;
    }
    EXPECT_EQ(tests::runInChild([] {
                  accounts::become(accounts::anna);
                  tests::provideEntryFolder();
                  ASSERT_EQ(::chmod(tests::entryFolder().c_str(), 0300), 0);
                  const std::string text = "System Error: File system inconsistency";
                  const std::string message =
                      "LockedFile::filterNames(): Failed to open parent folder. (Error 13)";
                  tests::expectReported<std::runtime_error>(
                      [] { const Endpoint made(data, tag, key); }, text, message);
                  tests::expectReported<std::runtime_error>([] { Endpoint::list(); }, text,
                                                            message);
                  tests::expectReported<std::runtime_error>([] { Endpoint::find(tag, key); }, text,
                                                            message);
                  EXPECT_EQ(::chmod(tests::entryFolder().c_str(), 0700), 0);
              }),
              0);
}

TEST_F(EndpointUnderStrain, IsReportedWhereAFileStandsInForItsFolder) {
    tests::provideEntryFolder();
    fs::remove(tests::entryFolder());
    std::ofstream(tests::privateBase() + "/qvEndpointRegistry").flush();
    tests::expectReported<std::runtime_error>(
        [] { Endpoint::list(); }, "System Error: File system inconsistency",
        "LockedFile::filterNames(): Failed to open parent folder. (Error 20)");
    fs::remove_all(tests::privateBase());
}
