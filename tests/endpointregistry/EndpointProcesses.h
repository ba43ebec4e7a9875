#pragma once

#include "foundation/os/FileDescriptor.h"
#include "foundation/os/RetryOnInterrupt.h"
#include "tests/support/ForkedProcess.h"

#include <cerrno>
#include <csignal>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <gtest/gtest.h>
#include <memory>
#include <string>
#include <sys/eventfd.h>
#include <sys/wait.h>
#include <system_error>
#include <unistd.h>
#include <vector>

namespace tests {

/// Lets waiting processes go on at the same moment.
class StartSignal {
public:
    void give(std::size_t processes) const {
        const std::uint64_t count = processes;
        if (::write(signal.get(), &count, sizeof count) != sizeof count) {
            throw std::system_error(errno, std::generic_category(), "eventfd");
        }
    }
    void await() const {
        std::uint64_t one = 0;
        const auto read = [&] { return ::read(signal.get(), &one, sizeof one); };
        if (foundation::os::retryOnInterrupt(read) != sizeof one) {
            throw std::system_error(errno, std::generic_category(), "eventfd");
        }
    }

private:
    foundation::os::FileDescriptor signal{::eventfd(0, EFD_SEMAPHORE | EFD_CLOEXEC)};
};

/// Children that run the same function, each with its number, and are killed with the object.
class Crew {
public:
    Crew(std::size_t size, const std::function<void(std::size_t number, Channel&)>& body) {
        for (std::size_t number = 0; number < size; ++number) {
            members.push_back(std::make_unique<ForkedProcess>(
                [&body, number](Channel& channel) { body(number, channel); }));
        }
    }

    std::size_t size() const { return members.size(); }
    ForkedProcess& operator[](std::size_t number) const { return *members.at(number); }

    void tell(const std::string& message) const {
        for (const auto& member : members) {
            member->channel().send(message);
        }
    }

    /// What each sent, in the order of their numbers.
    std::vector<std::string> hear() const {
        std::vector<std::string> answers;
        for (const auto& member : members) {
            answers.push_back(member->channel().receive());
        }
        return answers;
    }

    void expectSuccess() const {
        for (const auto& member : members) {
            EXPECT_EQ(member->waitForExit(), 0);
        }
    }

private:
    std::vector<std::unique_ptr<ForkedProcess>> members;
};

/// Kills the child and waits until it has ended, but keeps its process id in use.
inline void killWithoutReaping(const ForkedProcess& child) {
    siginfo_t ignored{};
    const auto wait = [&] {
        return ::waitid(P_PID, static_cast<id_t>(child.pid()), &ignored, WEXITED | WNOWAIT);
    };
    if (::kill(child.pid(), SIGKILL) != 0 || foundation::os::retryOnInterrupt(wait) != 0) {
        throw std::system_error(errno, std::generic_category(), "kill");
    }
}

} // namespace tests
