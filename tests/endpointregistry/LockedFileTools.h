#pragma once

#include "foundation/os/FileDescriptor.h"
#include "tests/support/SharedFolder.h"

#include <chrono>
#include <cstddef>
#include <gtest/gtest.h>
#include <stdexcept>
#include <string>
#include <sys/types.h>
#include <thread>
#include <vector>

namespace tests {

/// The base folder of the calling user's private registry.
std::string privateBase();
/// The folders of a parent name, private and shared, each with a trailing separator.
std::string privateFolder(const std::string& parent);
std::string sharedFolder(const std::string& parent, const std::string& trustee);

/// The name of a group to which the calling process may hand its files.
std::string ownGroup();

void makeFile(const std::string& path, mode_t mode);

/// The open file; throws when it cannot be opened.
foundation::os::FileDescriptor openFile(const std::string& path);

/// Whether somebody holds the lock of the file, as the system says.
bool isHeld(const std::string& path);

/// Whether the process waits for a lock, as the system says; only where `canSeeWaiting`.
bool waitsForLock(pid_t process);
bool canSeeWaiting();

/// Whether the process has a file of this name open, removed or not. Of one that others hold the
/// lock of, it may be waiting for that lock without being queued for it.
bool hasOpen(pid_t process, const std::string& name);
inline const char* const whyWaitingIsNotSeen = "needs /proc/locks";

/// How many descriptors this process has open.
std::size_t countDescriptors();

/// All names in the folder but "." and "..", sorted.
std::vector<std::string> namesIn(const std::string& folder);

/// Returns once the condition is true; throws when it does not become so within a generous limit.
template<typename Condition>
void waitUntil(const Condition& condition, const std::string& what) {
    const auto limit = std::chrono::steady_clock::now() + std::chrono::minutes(4);
    while (!condition()) {
        if (std::chrono::steady_clock::now() > limit) {
            throw std::runtime_error("did not come about: " + what);
        }
        std::this_thread::yield();
    }
}

/// A test with a registry folder of its own.
class LockedFileTest : public testing::Test {
protected:
    const std::string parent = testing::UnitTest::GetInstance()->current_test_info()->name();
    const std::string name = "file";

    std::string folder() const { return privateFolder(parent); }
    std::string path() const { return folder() + name; }
};

} // namespace tests
