#pragma once

#include "foundation/os/FileDescriptor.h"

#include <cstdint>
#include <functional>
#include <memory>
#include <sys/types.h>

namespace benchmarks {

/// A forked process that does its work until the object goes.
class Helper {
public:
    /// What the work does with its parent, in the helper.
    class Parent {
    public:
        /// Lets the constructor return.
        void tellReady();

        /// Whether the object still lives.
        bool goesOn() const;

        /// One more of what the work counts.
        void count();

        void waitForEnd();

    private:
        friend class Helper;
        struct Shared;
        int connection = -1;
        std::shared_ptr<Shared> shared;
    };

    /// Throws std::runtime_error when the work ends before it is ready.
    explicit Helper(const std::function<void(Parent&)>& work);
    ~Helper();

    Helper(const Helper&) = delete;
    Helper& operator=(const Helper&) = delete;

    /// What the work has counted.
    std::uint64_t count() const;

    /// Whether the work has ended with an exception.
    bool hasFailed() const;

private:
    Parent ends;
    foundation::os::FileDescriptor connection;
    pid_t child = -1;
};

} // namespace benchmarks
