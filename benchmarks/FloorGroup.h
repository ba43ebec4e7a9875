#pragma once

#include "benchmarks/Floor.h"

#include <optional>
#include <string>
#include <string_view>
#include <sys/ipc.h>

namespace benchmarks::floor {

/// The same for what is shared with a group: a folder of entries, and a table in two segments of
/// System V shared memory, which nothing but attaching reads, under a lock file.
class SharedFolder {
public:
    /// For what is shared by now. The table's segments must be all that there are on this machine.
    explicit SharedFolder(std::string trustee);

    std::optional<DataPair> find(std::string_view groupPart, std::string_view keyPart) const;

private:
    std::string trustee;
    std::string entries;
    std::string lock;
    key_t base = IPC_PRIVATE;
    key_t container = IPC_PRIVATE;
};

} // namespace benchmarks::floor
