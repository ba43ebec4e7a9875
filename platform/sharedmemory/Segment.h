#pragma once

#include "sharedmemory/SharedMemory.h"

#include <cstddef>
#include <stdexcept>
#include <string>
#include <string_view>
#include <sys/types.h>
#include <unistd.h>
#include <utility>

namespace agent::spf::sharedmemory {

/// What a handle holds of the segment it is attached to. Each implementation derives its own.
class SharedMemory::Segment {
public:
    explicit Segment(std::string trustee)
        : trustee(std::move(trustee)) {}
    virtual ~Segment() = default;

    Segment(const Segment&) = delete;
    Segment& operator=(const Segment&) = delete;

    virtual void* address() const = 0;
    virtual std::size_t size() const noexcept = 0;

    /// Whether whoever looks for the name now still comes to this segment.
    virtual bool isStillNamed() const noexcept = 0;

    /// Removes the segment's name, unless it stands for another segment by now, once the last bytes
    /// are written.
    virtual void remove() noexcept = 0;

    void setLastBytes(std::string_view bytes) {
        if (bytes.size() > size()) {
            throw std::invalid_argument("Shared memory has fewer bytes than are to be written");
        }
        last = bytes;
    }

    const std::string& trusteeName() const noexcept { return trustee; }

    // Bound to the process, since a forked child holds copies of its parent's handles.
    void becomeCreator() noexcept { creator = remover = ::getpid(); }
    bool isCreator() const noexcept { return creator != nobody && creator == ::getpid(); }
    void removeAtEnd() noexcept { remover = ::getpid(); }
    void keepAtEnd() noexcept { remover = nobody; }
    bool isRemovedAtEnd() const noexcept { return remover != nobody && remover == ::getpid(); }

protected:
    /// What the segment begins with when it is removed.
    const std::string& lastBytes() const noexcept { return last; }

private:
    static constexpr pid_t nobody = 0;

    std::string trustee;
    std::string last;
    pid_t creator = nobody;
    pid_t remover = nobody;
};

} // namespace agent::spf::sharedmemory
