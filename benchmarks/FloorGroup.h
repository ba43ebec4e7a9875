#pragma once

#include "benchmarks/Floor.h"

#include <optional>
#include <string>
#include <string_view>

namespace benchmarks::floor {

/// The same for what is shared with a group: a folder of entries, and a table in two segments of
/// System V shared memory, which nothing but attaching reads, under a lock file.
class SharedFolder {
public:
    /// For what is shared by now, as long as the table is neither replaced nor resized.
    explicit SharedFolder(std::string trustee);

    std::optional<DataPair> find(std::string_view groupPart, std::string_view keyPart) const;

private:
    std::string trustee;
    std::string entries;
    std::string lock;
    /// The records of the table's segments.
    std::string base;
    std::string container;
};

} // namespace benchmarks::floor
