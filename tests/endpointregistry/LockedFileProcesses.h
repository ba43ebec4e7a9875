#pragma once

#include "tests/support/ForkedProcess.h"

#include <cerrno>
#include <cstddef>
#include <gtest/gtest.h>
#include <memory>
#include <new>
#include <pthread.h>
#include <sys/mman.h>
#include <system_error>
#include <vector>

namespace tests {

/// A value in memory that this process shares with the children that it makes from now on.
template<typename Value>
class SharedWithChildren {
public:
    SharedWithChildren()
        : address(::mmap(nullptr, sizeof(Value), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS,
                         -1, 0)) {
        if (address == MAP_FAILED) {
            throw std::system_error(errno, std::generic_category(), "mmap");
        }
        value = new (address) Value();
    }
    ~SharedWithChildren() {
        value->~Value();
        ::munmap(address, sizeof(Value));
    }

    SharedWithChildren(const SharedWithChildren&) = delete;
    SharedWithChildren& operator=(const SharedWithChildren&) = delete;

    Value& operator*() const { return *value; }
    Value* operator->() const { return value; }

private:
    void* address;
    Value* value = nullptr;
};

/// Lets a number of processes go on together.
class Barrier {
public:
    /// To be called once, before the children are made.
    void expect(unsigned processes) {
        pthread_barrierattr_t attributes;
        ::pthread_barrierattr_init(&attributes);
        ::pthread_barrierattr_setpshared(&attributes, PTHREAD_PROCESS_SHARED);
        ::pthread_barrier_init(&barrier, &attributes, processes);
        ::pthread_barrierattr_destroy(&attributes);
    }
    void wait() { ::pthread_barrier_wait(&barrier); }

private:
    pthread_barrier_t barrier;
};

/// Children that run the same function, each with its number.
class Processes {
public:
    template<typename Body>
    Processes(std::size_t count, const Body& body) {
        for (std::size_t number = 0; number < count; ++number) {
            children.push_back(
                std::make_unique<ForkedProcess>([&body, number](Channel&) { body(number); }));
        }
    }

    void expectSuccess() {
        for (const auto& child : children) {
            EXPECT_EQ(child->waitForExit(), 0);
        }
    }

private:
    std::vector<std::unique_ptr<ForkedProcess>> children;
};

} // namespace tests
