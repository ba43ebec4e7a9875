#include "benchmarks/peers/Server.h"

#include "foundation/os/RetryOnInterrupt.h"

#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdlib>
#include <fcntl.h>
#include <fstream>
#include <stdexcept>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <system_error>
#include <thread>
#include <unistd.h>

namespace benchmarks::peers {

namespace {

using foundation::os::retryOnInterrupt;
using std::chrono::steady_clock;

constexpr std::chrono::seconds longestStart{20};

[[noreturn]] void runServer(std::vector<std::string>& command, const std::filesystem::path& folder,
                            pid_t parent) {
    std::vector<char*> arguments;
    for (std::string& word : command) {
        arguments.push_back(word.data());
    }
    arguments.push_back(nullptr);

    // The parent may have died before the kernel knew that its death matters.
    ::prctl(PR_SET_PDEATHSIG, SIGKILL);
    const int log = ::open((folder / "log").c_str(), O_WRONLY | O_CREAT | O_APPEND, 0600);
    if (::getppid() == parent && log != -1 && ::dup2(log, STDOUT_FILENO) != -1 &&
        ::dup2(log, STDERR_FILENO) != -1 && ::chdir(folder.c_str()) == 0) {
        ::execvp(arguments.front(), arguments.data());
        ::perror(arguments.front());
    }
    ::_exit(127);
}

} // namespace

TemporaryFolder::TemporaryFolder() {
    std::string name = std::filesystem::temp_directory_path() / "peer-XXXXXX";
    if (::mkdtemp(name.data()) == nullptr) {
        throw std::system_error(errno, std::generic_category(), name);
    }
    path = name;
}

TemporaryFolder::~TemporaryFolder() {
    std::error_code ignored;
    std::filesystem::remove_all(path, ignored);
}

Server::Server(std::vector<std::string> command, const std::filesystem::path& folder)
    : name(command.front())
    , log(folder / "log") {
    const pid_t parent = ::getpid();
    child = ::fork();
    if (child == -1) {
        throw std::system_error(errno, std::generic_category(), "fork");
    }
    if (child == 0) {
        runServer(command, folder, parent);
    }
}

Server::~Server() {
    // Nothing is left to be saved, so there is no need to ask it to end.
    if (!isReaped) {
        ::kill(child, SIGKILL);
        retryOnInterrupt([this] { return ::waitpid(child, nullptr, 0); });
    }
}

void Server::waitUntil(const std::function<bool()>& answers) {
    const auto limit = steady_clock::now() + longestStart;
    while (!answers()) {
        if (hasEnded()) {
            fail("ended");
        }
        if (steady_clock::now() > limit) {
            fail("does not answer");
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
}

bool Server::hasEnded() {
    isReaped = isReaped || ::waitpid(child, nullptr, WNOHANG) == child;
    return isReaped;
}

void Server::fail(const std::string& why) const {
    std::string lastLine;
    std::ifstream lines(log);
    for (std::string line; std::getline(lines, line);) {
        lastLine = line;
    }
    throw std::runtime_error(name + ' ' + why + ": " + lastLine);
}

} // namespace benchmarks::peers
