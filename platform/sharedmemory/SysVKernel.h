#pragma once

#include <cstddef>
#include <ctime>
#include <functional>
#include <optional>
#include <sys/ipc.h>
#include <sys/types.h>

/// The kernel's segments of System V shared memory, whoever made them for whatever purpose.
namespace agent::spf::sharedmemory::sysv {

struct Status {
    /// What it is found by; IPC_PRIVATE when it is not.
    key_t key;
    /// Who made it, which nobody can change; and its owner, whom the owner itself can change.
    uid_t creator;
    uid_t owner;
    gid_t group;
    mode_t mode;
    std::size_t size;
    /// The process that made it; 0 for one of another process namespace.
    pid_t maker;
    unsigned long attachments;
    std::time_t changed;
};

/// The id of the segment that this key stands for now, whoever may use it; nothing, with errno set:
/// ENOENT when there is none.
std::optional<int> findId(key_t key);

/// The status of a segment, of one that may not be read as well; nothing, with errno set.
std::optional<Status> statusOf(int id);

/// Makes a segment of zero bytes under a key that is free; nothing, with errno set: EEXIST when it
/// is not.
std::optional<int> makeSegment(key_t key, std::size_t size, mode_t mode);

/// Sets a segment's mode, and its group where one is named. False, with errno set, on failure.
bool changeSegment(int id, mode_t mode, std::optional<gid_t> group);

/// Frees the segment's key; its memory goes with the last process attached. Only its owner and its
/// creator may. False, with errno set, on failure.
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
