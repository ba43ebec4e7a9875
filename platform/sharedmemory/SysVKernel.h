#pragma once

#include <cstddef>
#include <functional>
#include <optional>
#include <sys/types.h>

/// The kernel's segments of System V shared memory, whoever made them for whatever purpose. Ours
/// have no key: nobody can guess one, take it first, or run out of them.
namespace agent::spf::sharedmemory::sysv {

struct Status {
    uid_t creator;
    uid_t owner;
    gid_t group;
    mode_t mode;
    std::size_t size;
    /// The process that made it; 0 for one of another process namespace.
    pid_t maker;
    unsigned long attachments;
    bool hasKey;
    /// It was removed, and goes with the last process that is attached to it.
    bool isRemoved;
};

/// The status of a segment; nothing, with errno set, also where the caller may not read it.
std::optional<Status> statusOf(int id);

/// Makes a segment of zero bytes that has no key; nothing, with errno set.
std::optional<int> makeSegment(std::size_t size, mode_t mode);

/// Sets a segment's mode, and its group where one is named. False, with errno set, on failure.
bool changeSegment(int id, mode_t mode, std::optional<gid_t> group);

/// Removes a segment; its memory goes with the last process attached. Only its owner, its creator
/// and root may. False, with errno set, on failure.
bool removeSegment(int id);

/// Whether errno says that there is no segment of an id any more.
bool saysGone(int error);

/// Calls `visit` with the id of every segment of this machine that the caller may read.
void forEachReadable(const std::function<void(int id, const Status&)>& visit);

/// Owner of an attachment to a segment's bytes.
class Attachment {
public:
    Attachment() noexcept = default;
    /// Attaches for reading and writing; empty, with errno set, when the system refuses.
    explicit Attachment(int id) noexcept;
    Attachment(Attachment&& other) noexcept;
    Attachment& operator=(Attachment&& other) noexcept;
    Attachment(const Attachment&) = delete;
    Attachment& operator=(const Attachment&) = delete;
    ~Attachment();

    explicit operator bool() const noexcept { return address != nullptr; }
    char* get() const noexcept { return address; }

private:
    char* address = nullptr;
};

} // namespace agent::spf::sharedmemory::sysv
