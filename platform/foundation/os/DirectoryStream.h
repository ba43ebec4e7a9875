#pragma once

#include "foundation/os/FileDescriptor.h"
#include "foundation/os/PathAt.h"

#include <array>
#include <cstddef>

namespace foundation::os {

/// The names in a directory, read one after the other.
class DirectoryStream {
public:
    /// Opens the directory; empty, with errno set, when it cannot be opened.
    explicit DirectoryStream(const PathAt& where);

    /// How much is read at once: `aLittle` at first, and then more and more, is for whoever may
    /// stop before the end. Nobody gains by more than `much`.
    enum class Reading : std::size_t { aLittle = 2048, much = 16384 };

    /// Reads on in a directory that is open and stays its owner's.
    explicit DirectoryStream(int directory, Reading reading = Reading::much) noexcept;

    DirectoryStream(const DirectoryStream&) = delete;
    DirectoryStream& operator=(const DirectoryStream&) = delete;

    explicit operator bool() const noexcept { return directory != -1; }

    /// The next name, valid until the next call; null at the end with errno 0, or with errno set
    /// when the directory cannot be read on.
    const char* next() noexcept;

private:
    FileDescriptor own;
    int directory = -1;
    std::size_t atOnce = static_cast<std::size_t>(Reading::much);
    std::size_t position = 0;
    std::size_t filled = 0;
    // NOLINTNEXTLINE(*-member-init): filled by the system
    alignas(std::max_align_t) std::array<char, static_cast<std::size_t>(Reading::much)> buffer;
};

} // namespace foundation::os
