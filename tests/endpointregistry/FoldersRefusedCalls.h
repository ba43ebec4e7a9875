#pragma once

#include <array>
#include <cstdint>
#include <functional>
#include <string>
#include <vector>

namespace tests {

/// A system call that a thread is about to make.
struct PendingCall {
    int number;
    std::array<std::uint64_t, 6> arguments;
};

/// Has these system calls of the calling thread fail from now on with the errno value that
/// `refusal` returns for them; where it returns 0 the call is made. For good: call it in a child.
///
/// `refusal` runs on another thread of the process, which is not restricted.
void refuseCalls(const std::vector<int>& numbers,
                 const std::function<int(const PendingCall&)>& refusal);

/// Has all calls of these numbers fail with this errno value.
void refuseCalls(const std::vector<int>& numbers, int error);

/// Has the calls that change the owner, change the mode, or examine a file fail where they are
/// about the file of this path, whether they name it or have it open.
void refuseOwnerOf(const std::string& path, int error);
void refuseModeOf(const std::string& path, int error);
void refuseStatusOf(const std::string& path, int error);

/// Has the calls that change the owner of a regular file fail, but not those for folders.
void refuseOwnersOfRegularFiles(int error);

} // namespace tests
