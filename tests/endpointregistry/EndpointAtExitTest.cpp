#include "endpointregistry/Endpoint.h"

#include "foundation/os/RetryOnInterrupt.h"
#include "tests/endpointregistry/EndpointTools.h"
#include "tests/platform/LogTools.h"
#include "tests/support/ForkedProcess.h"
#include "tests/support/LogCapture.h"

#include <exception>
#include <gtest/gtest.h>
#include <spawn.h>
#include <stdexcept>
#include <string>
#include <sys/wait.h>
#include <unistd.h>
#include <vector>

using namespace agent::spf::endpointregistry;

namespace {

/// The status of the program that ends with published endpoints of static storage.
int runProgram(std::vector<std::string> arguments) {
    std::string path = ENDPOINT_AT_EXIT_PROGRAM;
    std::vector<char*> command{path.data()};
    for (std::string& argument : arguments) {
        command.push_back(argument.data());
    }
    command.push_back(nullptr);
    pid_t child = -1;
    if (::posix_spawn(&child, path.c_str(), nullptr, nullptr, command.data(), environ) != 0) {
        throw std::runtime_error("cannot run " + path);
    }
    int status = -1;
    foundation::os::retryOnInterrupt([&] { return ::waitpid(child, &status, 0); });
    return status;
}

class EndpointAtExit : public tests::RegistryTest {
protected:
    void TearDown() override {
        EXPECT_EQ(tests::entryFiles(), std::vector<std::string>());
        EXPECT_EQ(tests::segmentFiles(), std::vector<std::string>());
        EXPECT_TRUE(Endpoint::list().empty());
    }
};

} // namespace

TEST_F(EndpointAtExit, IsWithdrawnWhenItsStorageIsStatic) {
    EXPECT_EQ(runProgram({}), 0);
}

TEST_F(EndpointAtExit, IsWithdrawnWhenItsStorageIsStaticAndItsEndIsLogged) {
    EXPECT_EQ(runProgram({"traced"}), 0);
}

TEST_F(EndpointAtExit, EndsTheProcessWhenTheApplicationsLogFailsOnItsDestruction) {
    constexpr int terminated = 42;
    tests::ForkedProcess child([](tests::Channel&) {
        std::set_terminate([] { ::_exit(terminated); });
        const tests::LogCapture log;
        const tests::ApplicationSink sink(
            [](const boost::log::record_view&) { throw std::runtime_error("clogged"); });
        const Endpoint endpoint({"a", ""}, "tag", "key");
    });
    EXPECT_EQ(child.waitForExit(), terminated);
    EXPECT_TRUE(Endpoint::list().empty());
}
