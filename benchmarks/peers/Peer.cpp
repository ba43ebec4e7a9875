#include "benchmarks/peers/Peer.h"

#include "foundation/os/RetryOnInterrupt.h"

#include <poll.h>

namespace benchmarks::peers {

Entry numberedEntry(std::size_t number) {
    const std::string digits = std::to_string(number);
    return {"key " + digits, {"unix", "/run/service-" + digits}};
}

std::string join(const Data& data) {
    return data.first + '\0' + data.second;
}

Data split(std::string_view value) {
    const std::size_t end = value.find('\0');
    return {std::string(value.substr(0, end)), std::string(value.substr(end + 1))};
}

void Connection::serve(int end) {
    pollfd ended{end, POLLIN, 0};
    foundation::os::retryOnInterrupt([&] { return ::poll(&ended, 1, -1); });
}

} // namespace benchmarks::peers
