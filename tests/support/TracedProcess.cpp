#include "tests/support/TracedProcess.h"

#include "foundation/os/RetryOnInterrupt.h"

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <stdexcept>
#include <sys/ptrace.h>
#include <sys/wait.h>
#include <system_error>
#include <unistd.h>

namespace tests {

namespace {

using foundation::os::retryOnInterrupt;

int waitForChange(pid_t child) {
    int status = 0;
    if (retryOnInterrupt([&] { return ::waitpid(child, &status, 0); }) == -1) {
        throw std::system_error(errno, std::generic_category(), "waitpid");
    }
    return status;
}

[[noreturn]] void runChild(const std::function<void()>& body) {
    int status = EXIT_FAILURE;
    try {
        if (::ptrace(PTRACE_TRACEME, 0, nullptr, nullptr) == 0 && ::raise(SIGSTOP) == 0) {
            body();
            status = EXIT_SUCCESS;
        }
    } catch (const std::exception& error) {
        static_cast<void>(std::fputs(error.what(), stderr));
    }
    ::_exit(status);
}

} // namespace

TracedProcess::TracedProcess(const std::function<void()>& body)
    : child(::fork()) {
    if (child == -1) {
        throw std::system_error(errno, std::generic_category(), "fork");
    }
    if (child == 0) {
        runChild(body);
    }
    if (!WIFSTOPPED(waitForChange(child))) {
        isReaped = true;
        throw std::runtime_error("The child cannot be traced.");
    }
    // Else the kernel does not tell at which call it stops.
    if (::ptrace(PTRACE_SETOPTIONS, child, nullptr, PTRACE_O_TRACESYSGOOD) != 0) {
        throw std::system_error(errno, std::generic_category(), "ptrace");
    }
}

TracedProcess::~TracedProcess() {
    if (!isReaped) {
        ::kill(child, SIGKILL);
        retryOnInterrupt([this] { return ::waitpid(child, nullptr, 0); });
    }
}

void TracedProcess::runToOwnStop() {
    if (::ptrace(PTRACE_CONT, child, nullptr, nullptr) != 0) {
        throw std::system_error(errno, std::generic_category(), "ptrace");
    }
    const int status = waitForChange(child);
    if (!WIFSTOPPED(status) || WSTOPSIG(status) != SIGSTOP) {
        isReaped = WIFEXITED(status) || WIFSIGNALED(status);
        throw std::runtime_error("The traced child did not stop itself.");
    }
}

bool TracedProcess::run(int count) {
    for (int step = 0; step < count; ++step) {
        if (!runToNextStep()) {
            return false;
        }
    }
    return true;
}

bool TracedProcess::runToCall(long number, const std::function<bool(const Arguments&)>& isWanted) {
    while (runToNextStep()) {
        __ptrace_syscall_info info{};
        if (::ptrace(PTRACE_GET_SYSCALL_INFO, child, sizeof info, &info) == -1) {
            throw std::system_error(errno, std::generic_category(), "ptrace");
        }
        if (info.op == PTRACE_SYSCALL_INFO_ENTRY) {
            const auto& call =
                info.entry; // NOLINT(*-pro-type-union-access): as the kernel tells it
            if (call.nr == static_cast<std::uint64_t>(number) &&
                isWanted(std::to_array(call.args))) {
                return true;
            }
        }
    }
    return false;
}

bool TracedProcess::runToNextStep() {
    if (::ptrace(PTRACE_SYSCALL, child, nullptr, nullptr) != 0) {
        throw std::system_error(errno, std::generic_category(), "ptrace");
    }
    const int status = waitForChange(child);
    if (WIFSTOPPED(status)) {
        return true;
    }
    isReaped = true;
    if (!WIFEXITED(status) || WEXITSTATUS(status) != EXIT_SUCCESS) {
        throw std::runtime_error("The traced child failed.");
    }
    return false;
}

} // namespace tests
