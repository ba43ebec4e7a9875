#include "tests/support/Isolation.h"

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <gtest/gtest.h>
#include <iostream>
#include <string>
#include <string_view>
#include <unistd.h>
#include <vector>

namespace {

bool isIsolated() {
    // NOLINTNEXTLINE(concurrency-mt-unsafe): there is one thread yet
    return std::getenv(tests::isolatedVariable) != nullptr;
}

bool onlyLists(const std::vector<char*>& arguments) {
    return std::any_of(arguments.begin(), arguments.end(), [](std::string_view argument) {
        return argument == "--gtest_list_tests" || argument == "--help";
    });
}

/// Where the build put the program, or beside this one if the build was moved.
std::string isolatePath(const std::string& self) {
    std::string path = TESTS_ISOLATE_PROGRAM;
    if (::access(path.c_str(), X_OK) != 0) {
        path = self.substr(0, self.rfind('/') + 1) + "isolate";
    }
    return path;
}

/// Starts this program again, isolated; returns only if that fails.
int runIsolated(std::vector<char*> command) {
    std::string isolate = isolatePath(command.front());
    command.insert(command.begin(), isolate.data());
    command.push_back(nullptr);
    ::execv(isolate.c_str(), command.data());
    const int error = errno;
    std::cerr << "cannot run " << isolate << ": " << std::generic_category().message(error) << '\n';
    return EXIT_FAILURE;
}

} // namespace

// A test binary that somebody starts by hand must not meet that person's own registry.
int main(int argc, char** argv) {
    const std::vector<char*> command(argv, argv + argc);
    if (!isIsolated() && !onlyLists(command)) {
        return runIsolated(command);
    }
    ::testing::InitGoogleTest(&argc, argv);
    return RUN_ALL_TESTS();
}
