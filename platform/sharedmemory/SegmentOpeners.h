#pragma once

#include "foundation/os/Group.h"
#include "sharedmemory/SharedMemory.h"

#include <cstddef>
#include <string>

namespace agent::spf::sharedmemory {

/// The openers of the same names and one more, for an operation that opens several segments and has
/// its trustee looked up once.
struct SharedMemory::Openers {
    static SharedMemory create(const std::string& name, std::size_t size,
                               const foundation::os::Group& trustee,
                               ImplementationSpecifications implementation);
    static SharedMemory find(const std::string& name, std::size_t size,
                             const foundation::os::Group& trustee,
                             ImplementationSpecifications implementation);
    /// Without the search through the caller's groups that an empty trustee stands for otherwise.
    static SharedMemory findExactly(const std::string& name, std::size_t size,
                                    const foundation::os::Group& trustee,
                                    ImplementationSpecifications implementation);
    static SharedMemory createOrFind(const std::string& name, std::size_t size,
                                     const foundation::os::Group& trustee,
                                     ImplementationSpecifications implementation);
};

} // namespace agent::spf::sharedmemory
