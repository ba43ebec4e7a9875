#pragma once

#include <cstddef>
#include <sys/mman.h>
#include <utility>

namespace foundation::os {

/// Owner of a shared, writable mapping of a file's first bytes.
class Mapping {
public:
    Mapping() noexcept = default;

    /// Maps `size` bytes, which the file must have; empty, with errno set, when the system refuses.
    Mapping(int descriptor, std::size_t size) noexcept
        : address(::mmap(nullptr, size, PROT_READ | PROT_WRITE, MAP_SHARED, descriptor, 0))
        , length(size) {}

    Mapping(Mapping&& other) noexcept
        : address(std::exchange(other.address, MAP_FAILED))
        , length(other.length) {}
    Mapping& operator=(Mapping&& other) noexcept {
        std::swap(address, other.address);
        std::swap(length, other.length);
        return *this;
    }
    Mapping(const Mapping&) = delete;
    Mapping& operator=(const Mapping&) = delete;
    ~Mapping() {
        if (*this) {
            ::munmap(address, length);
        }
    }

    explicit operator bool() const noexcept { return address != MAP_FAILED; }
    void* get() const noexcept { return address; }
    std::size_t size() const noexcept { return *this ? length : 0; }

private:
    void* address = MAP_FAILED;
    std::size_t length = 0;
};

} // namespace foundation::os
