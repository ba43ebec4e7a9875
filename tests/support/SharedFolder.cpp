#include "tests/support/SharedFolder.h"

#include <cerrno>
#include <sys/stat.h>
#include <system_error>

namespace tests {

void provideSharedFolder() {
    constexpr mode_t everybody = 0777;
    const char* const path = commonFolder.c_str();
    if (::mkdir(path, S_IRWXU) != 0) {
        if (errno == EEXIST) {
            return;
        }
        throw std::system_error(errno, std::generic_category(), commonFolder);
    }
    if (::chmod(path, everybody) != 0) { // Whatever the umask is.
        throw std::system_error(errno, std::generic_category(), commonFolder);
    }
}

} // namespace tests
