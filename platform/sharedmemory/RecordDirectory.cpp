#include "sharedmemory/RecordDirectory.h"

#include "fl/i18n/UstringConversion.h"
#include "foundation/os/Accounts.h"
#include "foundation/os/AtomicFolder.h"
#include "foundation/os/FolderOpening.h"
#include "foundation/os/GroupDirectory.h"
#include "foundation/os/RetryOnInterrupt.h"
#include "foundation/paths/CorvantisPath.h"
#include "foundation/paths/UsersFolder.h"
#include "sharedmemory/Failure.h"

#include <array>
#include <cerrno>
#include <fcntl.h>
#include <string_view>
#include <unistd.h>
#include <utility>

namespace agent::spf::sharedmemory {

namespace os = foundation::os;
namespace paths = foundation::paths;
using os::GroupDirectory;

namespace {

constexpr const char* directoryName = "qvSharedMemory";

/// By the group's number, since that is what the kernel decides by.
os::GroupDirectoryPath pathFor(gid_t group) {
    return {paths::sharedFolder(), {paths::sharedTopLevel, directoryName, std::to_string(group)}};
}

std::string privatePath() {
    return fl::i18n::ustring_to_utf8(paths::getCorvantisPath(paths::LocationHint::PrivateBase)) +
           "/" + directoryName + "/";
}

[[noreturn]] void failWith(const os::GroupDirectoryError& failure) {
    fail("cannot use the directory of the trustee's segments", failure.what(), failure.error());
}

/// The user's own; empty, with errno set, when it cannot be opened.
os::FileDescriptor openPrivate(const std::string& path) {
    // Without the separator at its end, behind which a link would be followed.
    os::FileDescriptor directory = os::openFolder(path.substr(0, path.size() - 1));
    if (!directory && errno != ENOENT) {
        fail("cannot open the directory of the user's segments", path, errno);
    }
    return directory;
}

/// Makes the directory, unless somebody else does first.
void create(const os::Group& trustee) {
    const auto group = groupOf(trustee);
    if (!group) {
        const std::string path = privatePath();
        const int error =
            os::createFolderAtomically(path.substr(0, path.size() - 1), S_IRWXU, std::nullopt);
        if (error != 0 && error != EEXIST) {
            fail("cannot make the directory of the user's segments", path, error);
        }
        return;
    }
    try {
        GroupDirectory::openOrCreate(pathFor(*group), trustee);
    } catch (const os::GroupDirectoryError& failure) {
        failWith(failure);
    }
}

/// Whether nobody but its owner can change an open file.
bool isFinal(const struct stat& status) {
    return S_ISREG(status.st_mode) && (status.st_mode & (S_IWGRP | S_IWOTH)) == 0;
}

std::optional<SegmentRecord> readRecord(int descriptor) {
    // One byte more, to tell a longer file from a record.
    std::array<char, SegmentRecord::size + 1> bytes{};
    const ssize_t count =
        os::retryOnInterrupt([&] { return ::pread(descriptor, bytes.data(), bytes.size(), 0); });
    return count < 0 ? std::nullopt
                     : SegmentRecord::parse({bytes.data(), static_cast<std::size_t>(count)});
}

} // namespace

RecordDirectory::RecordDirectory(os::FileDescriptor directory, std::string path,
                                 std::optional<gid_t> group)
    : directory(std::move(directory))
    , ownPath(std::move(path))
    , ownGroup(group)
    , ownUser(group ? 0 : ::geteuid()) {
}

std::optional<RecordDirectory> RecordDirectory::tryOpen(const os::Group& trustee) {
    const auto group = groupOf(trustee);
    if (!group) {
        std::string path = privatePath();
        os::FileDescriptor directory = openPrivate(path);
        return directory
                   ? std::optional(RecordDirectory(std::move(directory), std::move(path), group))
                   : std::nullopt;
    }
    try {
        auto directory = GroupDirectory::tryOpen(pathFor(*group), trustee);
        return directory ? std::optional(RecordDirectory(directory->takeDescriptor(),
                                                         directory->path(), group))
                         : std::nullopt;
    } catch (const os::GroupDirectoryError& failure) {
        if (failure.step() == os::GroupDirectoryError::Step::open && failure.error() == EACCES &&
            !os::isInGroup(*group)) {
            return std::nullopt;
        }
        failWith(failure);
    }
}

RecordDirectory RecordDirectory::openOrCreate(const os::Group& trustee) {
    for (;;) {
        if (auto found = tryOpen(trustee)) {
            return std::move(*found);
        }
        create(trustee);
    }
}

mode_t RecordDirectory::segmentMode() const {
    constexpr mode_t userOnly = S_IRUSR | S_IWUSR;
    return ownGroup ? userOnly | S_IRGRP | S_IWGRP : userOnly;
}

mode_t RecordDirectory::recordMode() const {
    return ownGroup ? S_IRUSR | S_IRGRP : S_IRUSR;
}

bool RecordFile::reread() noexcept {
    if (::fstat(descriptor.get(), &status) != 0) {
        error = errno;
        return false;
    }
    record = isFinal(status) ? readRecord(descriptor.get()) : std::nullopt;
    return true;
}

RecordFile tryOpenRecord(const os::PathAt& where) noexcept {
    RecordFile file;
    file.descriptor = os::FileDescriptor(os::retryOnInterrupt([&] {
        return ::openat(where.folder, where.name.c_str(),
                        O_RDONLY | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK);
    }));
    if (!file.descriptor) {
        file.error = errno;
    } else if (!file.reread()) {
        file.descriptor.reset();
    }
    return file;
}

RecordFile openRecord(const os::PathAt& where) {
    RecordFile file = tryOpenRecord(where);
    if (file.error == EMFILE || file.error == ENFILE || file.error == ENOMEM) {
        fail("cannot open the record", where.name, file.error);
    }
    return file;
}

} // namespace agent::spf::sharedmemory
