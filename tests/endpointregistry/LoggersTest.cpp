#include "endpointregistry/Loggers.h"

#include "endpointregistry/Folders.h"
#include "foundation/log/Admin.h"
#include "foundation/log/DiagnosticLogger.h"
#include "foundation/os/FileDescriptor.h"
#include "tests/endpointregistry/FoldersTools.h"
#include "tests/endpointregistry/LoggersReportedFailure.h"
#include "tests/support/ForkedProcess.h"
#include "tests/support/LogCapture.h"

#include <algorithm>
#include <array>
#include <cstdio>
#include <fcntl.h>
#include <fstream>
#include <functional>
#include <gtest/gtest.h>
#include <iostream>
#include <iterator>
#include <stdexcept>
#include <string>
#include <sys/stat.h>
#include <system_error>
#include <thread>
#include <unistd.h>
#include <vector>

using namespace agent::spf::endpointregistry;
using foundation::log::severity;

namespace {

using Logger = foundation::log::basic_diagnostic_logger<char>;

constexpr std::array allSeverities{severity::finest, severity::finer,     severity::trace,
                                   severity::debug,  severity::caught,    severity::info,
                                   severity::notice, severity::attention, severity::warning,
                                   severity::error,  severity::fatal};

bool isSilent(const Logger& logger) {
    return std::none_of(allSeverities.begin(), allSeverities.end(),
                        [&](severity level) { return logger.isEnabled(level); });
}

bool writesEverything(const Logger& logger) {
    return std::all_of(allSeverities.begin(), allSeverities.end(),
                       [&](severity level) { return logger.isEnabled(level); });
}

struct Output {
    std::string standard;
    std::string error;
};

/// What a child that runs the body prints.
Output outputOf(const std::function<void()>& body) {
    const tests::ScratchFolder scratch;
    const auto redirect = [&](const std::string& name, int descriptor) {
        const foundation::os::FileDescriptor file(
            ::open((scratch / name).c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0600));
        if (!file || ::dup2(file.get(), descriptor) == -1) {
            throw std::system_error(errno, std::generic_category(), name);
        }
    };
    EXPECT_EQ(tests::runInChild([&] {
                  redirect("out", STDOUT_FILENO);
                  redirect("err", STDERR_FILENO);
                  body();
                  std::cout.flush();
              }),
              0);
    const auto contents = [&](const std::string& name) {
        std::ifstream file(scratch / name);
        return std::string(std::istreambuf_iterator<char>(file), {});
    };
    return {contents("out"), contents("err")};
}

std::ptrdiff_t linesOf(const std::string& text) {
    return std::count(text.begin(), text.end(), '\n');
}

void fail() {
    tests::expectThrown<std::runtime_error>([] { createFolder("/dev/shm/missing/new"); },
                                            "Endpoint Registry Error: File system inconsistency");
}

const std::string failure =
    "Utils::createFolder(): Failed to create the directory: </dev/shm/missing/new>. (Error 2)";

} // namespace

TEST(Loggers, AreTheSameObjectsOnEveryCall) {
    EXPECT_EQ(&getLogger(), &getLogger());
    EXPECT_EQ(&getMoveAndDestructionLogger(), &getMoveAndDestructionLogger());
    EXPECT_NE(&getLogger(), &getMoveAndDestructionLogger());
}

TEST(Loggers, AreTheSameObjectsOnEveryThread) {
    std::array<Logger*, 4> seen{};
    std::vector<std::thread> threads;
    for (Logger*& where : seen) {
        threads.emplace_back([&where] { where = &getLogger(); });
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
    for (const Logger* logger : seen) {
        EXPECT_EQ(logger, &getLogger());
    }
}

TEST(Loggers, HaveTheirChannels) {
    EXPECT_EQ(getLogger().channel(), "agent::spf::endpointregistry");
    EXPECT_EQ(getMoveAndDestructionLogger().channel(),
              "detail::agent::spf::endpointregistry::endpointmoveanddestruction");
}

TEST(Loggers, WriteNothingUnlessActivated) {
    EXPECT_EQ(tests::runInChild([] {
                  EXPECT_TRUE(isSilent(getLogger()));
                  EXPECT_TRUE(isSilent(getMoveAndDestructionLogger()));
              }),
              0);
    const Output output = outputOf(fail);
    EXPECT_EQ(output.standard, "");
    EXPECT_EQ(output.error, "");
}

TEST(Loggers, PrintFailuresToStandardOutputOnceActivated) {
    const Output output = outputOf([] {
        activateLogger();
        fail();
    });

    EXPECT_EQ(linesOf(output.standard), 1) << output.standard;
    EXPECT_NE(output.standard.find(failure), std::string::npos) << output.standard;
    EXPECT_NE(output.standard.find("agent::spf::endpointregistry"), std::string::npos)
        << output.standard;
    EXPECT_EQ(output.error, "");
}

TEST(Loggers, PrintFailuresOnceHoweverOftenActivated) {
    const Output output = outputOf([] {
        activateLogger();
        activateLogger();
        fail();
    });

    EXPECT_EQ(linesOf(output.standard), 1) << output.standard;
}

TEST(Loggers, PrintNothingOnceDeactivated) {
    const Output output = outputOf([] {
        activateLogger();
        deactivateLogger();
        fail();
    });

    EXPECT_EQ(output.standard, "");
    EXPECT_EQ(output.error, "");
}

TEST(Loggers, PrintAgainOnceActivatedAgain) {
    const Output output = outputOf([] {
        activateLogger();
        deactivateLogger();
        activateLogger();
        fail();
    });

    EXPECT_EQ(linesOf(output.standard), 1) << output.standard;
}

TEST(Loggers, KeepTheirDestinationWhenDeactivated) {
    const Output output = outputOf([] {
        activateLogger();
        deactivateLogger();
        foundation::log::local::admin::get()->setFilter("agent::spf::endpointregistry=error");
        fail();
    });

    EXPECT_EQ(linesOf(output.standard), 1) << output.standard;
    EXPECT_NE(output.standard.find(failure), std::string::npos) << output.standard;
}

TEST(Loggers, EnableEveryLevelOfTheRegistryAndOfTheSharedMemoryService) {
    EXPECT_EQ(tests::runInChild([] {
                  Logger sharedMemory("agent::spf::sharedmemory");
                  activateLogger();
                  EXPECT_TRUE(writesEverything(getLogger()));
                  EXPECT_TRUE(writesEverything(sharedMemory));
                  deactivateLogger();
                  EXPECT_TRUE(isSilent(getLogger()));
                  EXPECT_TRUE(isSilent(sharedMemory));
              }),
              0);
}

TEST(Loggers, EnableNoOtherChannel) {
    EXPECT_EQ(tests::runInChild([] {
                  Logger other("agent::spf::other");
                  activateLogger();
                  EXPECT_TRUE(isSilent(getMoveAndDestructionLogger()));
                  EXPECT_TRUE(isSilent(other));
              }),
              0);
}

TEST(Loggers, ReplaceTheFilterThatWasSetBefore) {
    EXPECT_EQ(tests::runInChild([] {
                  Logger other("agent::spf::other");
                  foundation::log::local::admin::get()->setFilter("agent::spf::other=all");
                  activateLogger();
                  EXPECT_TRUE(isSilent(other));
              }),
              0);
}

TEST(Loggers, DecideNothingAboutFailures) {
    fail();
    tests::expectLogged(fail, {failure});
    fail();
}

TEST(Loggers, WriteARecordOnlyForSeveritiesThatAreEnabled) {
    const tests::LogCapture fatalOnly("agent::spf::endpointregistry=fatal");

    fail();

    EXPECT_TRUE(fatalOnly.records().empty());
}

TEST(Loggers, MayBeUsedByAnyNumberOfThreads) {
    constexpr std::size_t perThread = 200;
    const tests::LogCapture log;
    std::vector<std::thread> threads;
    for (int i = 0; i < 4; ++i) {
        threads.emplace_back([] {
            for (std::size_t written = 0; written < perThread; ++written) {
                getLogger().log(severity::error, "message ", 1, " of many");
            }
        });
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
    const tests::LogRecord expected{tests::registryChannel, 512, "message 1 of many"};
    EXPECT_EQ(log.records(), std::vector<tests::LogRecord>(4 * perThread, expected));
}
