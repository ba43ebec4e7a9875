#pragma once

#include <filesystem>
#include <functional>
#include <string>
#include <sys/types.h>
#include <vector>

namespace benchmarks::peers {

/// A new folder below the system's folder of temporary files; it goes with the object.
class TemporaryFolder {
public:
    TemporaryFolder();
    ~TemporaryFolder();

    TemporaryFolder(const TemporaryFolder&) = delete;
    TemporaryFolder& operator=(const TemporaryFolder&) = delete;

    std::filesystem::path operator/(const std::string& name) const { return path / name; }
    const std::filesystem::path& get() const { return path; }

private:
    std::filesystem::path path;
};

/// A server that runs for as long as the object lives. It also dies with this process.
class Server {
public:
    /// Starts the program that the search path has under the first word, in that folder, where it
    /// leaves what it says in a file "log".
    Server(std::vector<std::string> command, const std::filesystem::path& folder);
    ~Server();

    Server(const Server&) = delete;
    Server& operator=(const Server&) = delete;

    /// Waits until `answers` says true. Throws std::runtime_error with what the server said last
    /// when it ends before that, or takes unreasonably long.
    void waitUntil(const std::function<bool()>& answers);

private:
    bool hasEnded();
    [[noreturn]] void fail(const std::string& why) const;

    std::string name;
    std::filesystem::path log;
    pid_t child = -1;
    bool isReaped = false;
};

} // namespace benchmarks::peers
