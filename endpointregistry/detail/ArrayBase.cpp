#include "endpointregistry/detail/ArrayBase.h"

#include <array>
#include <atomic>
#include <unistd.h>

namespace agent::spf::endpointregistry {

namespace {

constexpr std::size_t flagsOffset = 4;
constexpr std::size_t indexOffset = 5;
constexpr std::size_t widthsOffset = 8;
constexpr std::size_t lengthsOffset = 24;
constexpr std::size_t generationsOffset = 40;
constexpr std::uint8_t initialisedBit = 1;

using Claim = std::atomic_ref<std::uint32_t>;
using Flags = std::atomic_ref<std::uint8_t>;
using Number = std::atomic_ref<std::uint64_t>;
static_assert(Claim::is_always_lock_free && Flags::is_always_lock_free &&
                  Number::is_always_lock_free,
              "a lock would be known to one process only");

// The segment begins at a page, so the fields are aligned. All are written to as well.
// NOLINTBEGIN(cppcoreguidelines-pro-type-reinterpret-cast,readability-non-const-parameter)
Claim claimOf(char* bytes) {
    return Claim(*reinterpret_cast<std::uint32_t*>(bytes));
}

Flags flagsOf(char* bytes) {
    return Flags(*reinterpret_cast<std::uint8_t*>(bytes + flagsOffset));
}
Number numberOf(char* bytes, std::size_t offset, std::size_t index) {
    return Number(
        *reinterpret_cast<std::uint64_t*>(bytes + offset + index * sizeof(std::uint64_t)));
}
// NOLINTEND(cppcoreguidelines-pro-type-reinterpret-cast,readability-non-const-parameter)

} // namespace

pid_t ArrayBase::claim(pid_t process) const {
    std::uint32_t holder = 0;
    claimOf(bytes).compare_exchange_strong(holder, static_cast<std::uint32_t>(process));
    return static_cast<pid_t>(holder);
}

pid_t ArrayBase::claimant() const {
    return static_cast<pid_t>(claimOf(bytes).load());
}

void ArrayBase::clearClaim(pid_t process) const {
    auto holder = static_cast<std::uint32_t>(process);
    claimOf(bytes).compare_exchange_strong(holder, 0);
}

bool ArrayBase::isInitialised() const {
    return (flagsOf(bytes).load() & initialisedBit) != 0;
}

bool ArrayBase::setInitialised() const {
    std::uint8_t clear = 0;
    return flagsOf(bytes).compare_exchange_strong(clear, initialisedBit);
}

bool ArrayBase::initialize(std::uint64_t generation) const {
    Descriptor first = current();
    first.generation = generation;
    setCurrent(first);
    const bool wasClear = setInitialised();
    if (wasClear) {
        claimOf(bytes).store(static_cast<std::uint32_t>(::getpid()));
    }
    return wasClear;
}

std::string ArrayBase::initialContents(std::uint64_t generation) {
    alignas(std::uint64_t) std::array<char, size> contents{};
    ArrayBase(contents.data()).initialize(generation);
    return {contents.data(), contents.size()};
}

bool ArrayBase::isConsistent() const {
    constexpr char last = 1;
    const char index = bytes[indexOffset];
    return index >= 0 && index <= last && current().generation != 0;
}

std::size_t ArrayBase::currentIndex() const {
    return static_cast<unsigned char>(bytes[indexOffset]) & 1U;
}

void ArrayBase::flip() const {
    // Not before all that was written to the new container, should the process die here.
    std::atomic_ref(bytes[indexOffset]).store(static_cast<char>(otherIndex()));
}

ArrayBase::Descriptor ArrayBase::descriptor(std::size_t index) const {
    return {numberOf(bytes, widthsOffset, index).load(),
            numberOf(bytes, lengthsOffset, index).load(),
            numberOf(bytes, generationsOffset, index).load()};
}

void ArrayBase::setDescriptor(std::size_t index, const Descriptor& value) const {
    numberOf(bytes, generationsOffset, index).store(value.generation);
    numberOf(bytes, lengthsOffset, index).store(value.length);
    numberOf(bytes, widthsOffset, index).store(value.width);
}

} // namespace agent::spf::endpointregistry
