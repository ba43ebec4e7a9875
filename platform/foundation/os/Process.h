#pragma once

#include <sys/types.h>

namespace foundation::os {

/// Whether a process of this id is running. One that has exited and was not yet reaped by its
/// parent is not. Ids are given out again: that some process answers does not prove that it is the
/// one that was meant. May be called from any thread, about any user's process.
bool processLives(pid_t process);

} // namespace foundation::os
