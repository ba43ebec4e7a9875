#include "endpointregistry/detail/LockingOpen.h"

#include "endpointregistry/detail/LockHolder.h"
#include "foundation/os/AtomicFile.h"
#include "foundation/os/FileBytes.h"
#include "foundation/os/FileIdentity.h"
#include "foundation/os/RetryFor.h"
#include "foundation/os/RetryOnInterrupt.h"

#include <cerrno>
#include <chrono>
#include <fcntl.h>
#include <optional>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>
#include <utility>

// Linux has no flag that locks a file as it is opened. A new file is therefore made without a
// name, locked, and named; an existing one is opened, locked, and compared with its name.

namespace agent::spf::endpointregistry {

namespace {

namespace os = foundation::os;

/// Applies flock; returns 0 or the errno value.
int applyLock(int descriptor, int operation) {
    return os::retryOnInterrupt([&] { return ::flock(descriptor, operation); }) == 0 ? 0 : errno;
}

/// What became of an attempt to lock an open file.
struct Attempt {
    int error = 0;
    pid_t holder = 0;
    /// Whether its name has come to mean another file, or none, before the lock was had.
    bool isReplaced = false;
};

/// Takes the exclusive lock unless somebody else has it exclusively. Those that share it only ask
/// whether anybody holds it and are gone in a moment, so they are waited for.
Attempt lockUnlessHeld(int descriptor) {
    constexpr auto timeout = std::chrono::seconds(1);
    int error = 0;
    const bool isDecided = os::retryFor(timeout, [&] {
        error = applyLock(descriptor, LOCK_EX | LOCK_NB);
        if (error != EWOULDBLOCK || applyLock(descriptor, LOCK_SH | LOCK_NB) != 0) {
            return true;
        }
        applyLock(descriptor, LOCK_UN);
        return false;
    });
    return {isDecided ? error : EWOULDBLOCK};
}

/// Whether a lock has been waited for long enough: so long for this holder, and for all together.
bool isEnough(Waiting waiting, std::chrono::nanoseconds forHolder, std::chrono::nanoseconds forAll,
              const std::optional<HolderMark>& holder) {
    if (forHolder >= waiting.timeout() || waiting.timeout() == std::chrono::milliseconds::zero()) {
        return true;
    }
    // Not at once: a mark can be made up, and the true holder be about to let go.
    constexpr std::chrono::milliseconds aMoment{100};
    const bool isKnownToBeStuck =
        forHolder >= aMoment && holder && holder->age() >= waiting.timeout();
    return waiting.total() && (forAll >= *waiting.total() || isKnownToBeStuck);
}

/// Takes the exclusive lock unless one holder keeps it for the timeout. Each holder has a time of
/// its own, so that nobody gives up for there being many.
Attempt lockUnlessKept(int descriptor, const os::PathAt& where, Waiting waiting) {
    using Clock = std::chrono::steady_clock;
    std::optional<HolderMark> holder;
    const auto begin = Clock::now();
    auto since = begin;
    for (os::Backoff backoff;; backoff.sleep()) {
        // The times are taken after a holder was first seen and before it was last seen, so that a
        // process that was itself stopped in between never takes two holders for one.
        const auto now = Clock::now();
        const int error = applyLock(descriptor, LOCK_EX | LOCK_NB);
        if (error != EWOULDBLOCK) {
            return {error};
        }
        if (const auto current = findHolder(descriptor); current != holder) {
            holder = current;
            since = Clock::now();
        }
        if (isEnough(waiting, now - since, now - begin, holder)) {
            return {EWOULDBLOCK, holder ? holder->process : 0};
        }
        // Its holder may keep a removed file for good, while others have long gone on with the
        // new one.
        if (os::identityAt(where) != os::identityOf(descriptor)) {
            return {0, 0, true};
        }
    }
}

Attempt lock(int descriptor, const os::PathAt& where, Waiting waiting) {
    if (waiting.isNever()) {
        return lockUnlessHeld(descriptor);
    }
    return waiting.isWithoutEnd() ? Attempt{applyLock(descriptor, LOCK_EX)}
                                  : lockUnlessKept(descriptor, where, waiting);
}

/// The errno value for an open file that is no regular file; 0 for one that is.
int checkKind(const struct stat& status) {
    if (S_ISREG(status.st_mode)) {
        return 0;
    }
    return S_ISDIR(status.st_mode) ? EISDIR : EINVAL;
}

/// Not blocking, not followed: in a shared folder the name may have been given to a pipe or a link
/// on purpose.
os::FileDescriptor openToLock(const os::PathAt& where) {
    return os::FileDescriptor(os::retryOnInterrupt([&] {
        return ::openat(where.folder, where.name.c_str(),
                        O_RDONLY | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK);
    }));
}

enum class Comparing { withThePlace, byTheCaller };

/// Opens what stands in the place and locks it with `takeLock`, until both are the same file.
template<typename TakeLock>
LockingOpen lockExisting(const os::PathAt& where, Comparing comparing, TakeLock takeLock) {
    for (;;) {
        os::FileDescriptor file = openToLock(where);
        if (!file) {
            return {{}, errno};
        }
        const Attempt attempt = takeLock(file.get());
        if (attempt.isReplaced) {
            continue;
        }
        if (attempt.error != 0) {
            return {{}, attempt.error, attempt.holder};
        }
        LockedDescriptor lock(std::move(file));

        struct stat status {};
        if (::fstat(lock.get(), &status) != 0) {
            return {{}, errno};
        }
        if (const int error = checkKind(status); error != 0) {
            return {{}, error};
        }
        const os::FileIdentity identity(status);
        if (comparing == Comparing::byTheCaller || os::identityAt(where) == identity) {
            return {std::move(lock), 0, 0, false, identity, status};
        }
    }
}

LockingOpen makeLocked(const os::PathAt& where, const NewFile& made) {
    const mode_t mode = made.group ? groupFileMode : S_IRUSR;
    os::AtomicFile file = os::createFileAtomically(where, mode, [&made](int descriptor) {
        constexpr auto sameUser = static_cast<uid_t>(-1);
        if (made.group && ::fchown(descriptor, sameUser, *made.group) != 0) {
            return errno;
        }
        if (const int error = os::writeAll(descriptor, made.contents, 0); error != 0) {
            return error;
        }
        return applyLock(descriptor, LOCK_EX | LOCK_NB);
    });
    if (file.error != 0) {
        return {{}, file.error};
    }
    return {LockedDescriptor(std::move(file.descriptor)), 0, 0, true, file.identity};
}

LockingOpen openOrMakeLocked(const os::PathAt& where, Existing existing, Waiting waiting,
                             const NewFile& newFile) {
    const Comparing comparing = newFile.group ? Comparing::byTheCaller : Comparing::withThePlace;
    for (;;) {
        // What exists is opened without O_CREAT: with fs.protected_regular set, that flag makes
        // opening another user's file in a sticky folder fail, even for root.
        if (existing == Existing::accepted) {
            LockingOpen found = lockExisting(
                where, comparing, [&](int descriptor) { return lock(descriptor, where, waiting); });
            if (found.error != ENOENT) {
                return found;
            }
        }
        LockingOpen made = makeLocked(where, newFile);
        if (made.error != EEXIST || existing == Existing::refused) {
            return made;
        }
    }
}

} // namespace

LockingOpen openAndLock(const os::PathAt& where, Existing existing, Waiting waiting,
                        const NewFile& newFile) {
    LockingOpen opened = openOrMakeLocked(where, existing, waiting, newFile);
    // Nobody waits for the locks that nobody waits to take.
    if (opened.lock && !waiting.isNever()) {
        opened.lock.mark();
    }
    return opened;
}

LockingOpen openAndShareLock(const os::PathAt& where) {
    return lockExisting(where, Comparing::withThePlace, [](int descriptor) {
        return Attempt{applyLock(descriptor, LOCK_SH | LOCK_NB)};
    });
}

os::FileDescriptor openIfHeld(const os::PathAt& where) {
    os::FileDescriptor file = openToLock(where);
    const int error = file ? applyLock(file.get(), LOCK_SH | LOCK_NB) : errno;
    if (file && error != EWOULDBLOCK) {
        file.reset(); // The lock goes with it.
    }
    errno = file ? 0 : error;
    return file;
}

} // namespace agent::spf::endpointregistry
