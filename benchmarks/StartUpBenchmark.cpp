// Starting a process that is linked to the library and does not use it.

#include "benchmarks/Benchmarks.h"
#include "benchmarks/Measuring.h"
#include "foundation/os/RetryOnInterrupt.h"

#include <benchmark/benchmark.h>
#include <filesystem>
#include <spawn.h>
#include <string>
#include <sys/wait.h>
#include <unistd.h>

namespace benchmarks {

namespace {

bool run(const std::string& program) {
    std::string path = program;
    char* const arguments[] = {path.data(), nullptr}; // NOLINT(*-c-arrays): as main gets them
    pid_t process = -1;
    int status = -1;
    return ::posix_spawn(&process, path.c_str(), nullptr, nullptr, arguments, environ) == 0 &&
           foundation::os::retryOnInterrupt([&] { return ::waitpid(process, &status, 0); }) ==
               process &&
           status == 0;
}

void startUp(benchmark::State& state, const std::string& name) {
    const auto self = std::filesystem::read_symlink("/proc/self/exe");
    const std::string program = self.parent_path() / name;
    for (auto _ : state) {
        if (!run(program)) {
            state.SkipWithError((program + " does not run").c_str());
            return;
        }
    }
}

} // namespace

void registerStartUp() {
    add("registry/startUp", [](auto& state) { startUp(state, "idle_with_registry"); });
    add("floor/startUp", [](auto& state) { startUp(state, "idle_without_registry"); });
}

} // namespace benchmarks
