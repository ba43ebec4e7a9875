#include "tests/endpointregistry/FoldersRefusedCalls.h"

#include "foundation/os/FileIdentity.h"

#include <algorithm>
#include <cerrno>
#include <fcntl.h>
#include <future>
#include <memory>
#include <optional>
#include <seccomp.h>
#include <sys/stat.h>
#include <system_error>
#include <thread>
#include <type_traits>
#include <utility>

namespace tests {

namespace {

const std::vector<int> ownerCalls{SCMP_SYS(chown), SCMP_SYS(lchown), SCMP_SYS(fchown),
                                  SCMP_SYS(fchownat)};
const std::vector<int> modeCalls{SCMP_SYS(chmod), SCMP_SYS(fchmod), SCMP_SYS(fchmodat)};
const std::vector<int> statusCalls{SCMP_SYS(stat), SCMP_SYS(lstat), SCMP_SYS(fstat),
                                   SCMP_SYS(newfstatat), SCMP_SYS(statx)};

void demand(int result, const char* what) {
    if (result < 0) {
        throw std::system_error(-result, std::generic_category(), what);
    }
}

class Filter {
public:
    void add(std::uint32_t action, const std::vector<int>& numbers) {
        for (const int number : numbers) {
            demand(::seccomp_rule_add(context.get(), action, number, 0), "seccomp_rule_add");
        }
    }
    void load() { demand(::seccomp_load(context.get()), "seccomp_load"); }
    int notifications() const { return ::seccomp_notify_fd(context.get()); }

private:
    using Context = std::remove_pointer_t<scmp_filter_ctx>;
    std::unique_ptr<Context, decltype(&::seccomp_release)> context{::seccomp_init(SCMP_ACT_ALLOW),
                                                                   &::seccomp_release};
};

void answer(int notifications, const std::function<int(const PendingCall&)>& refusal) {
    seccomp_notif* request = nullptr;
    seccomp_notif_resp* response = nullptr;
    demand(::seccomp_notify_alloc(&request, &response), "seccomp_notify_alloc");
    // The loop ends with the process.
    while (true) {
        *request = {};
        if (::seccomp_notify_receive(notifications, request) != 0) {
            continue;
        }
        PendingCall call{request->data.nr, {}};
        std::copy(std::begin(request->data.args), std::end(request->data.args),
                  call.arguments.begin());
        const int error = refusal(call);
        constexpr auto makeTheCall = static_cast<std::uint32_t>(SECCOMP_USER_NOTIF_FLAG_CONTINUE);
        *response = {request->id, 0, -error, error == 0 ? makeTheCall : 0};
        ::seccomp_notify_respond(notifications, response);
    }
}

bool isOneOf(int number, std::initializer_list<int> numbers) {
    return std::find(numbers.begin(), numbers.end(), number) != numbers.end();
}

/// What the file that a call is about is like. Supervisor and caller share memory and descriptors.
std::optional<struct stat> targetOf(const PendingCall& call) {
    struct stat status {};
    const auto pathAt = [&](std::size_t index) {
        // NOLINTNEXTLINE(performance-no-int-to-ptr): the kernel hands pointers over as numbers
        return reinterpret_cast<const char*>(call.arguments.at(index));
    };
    const int descriptor = static_cast<int>(call.arguments[0]);
    int result = -1;
    if (isOneOf(call.number, {SCMP_SYS(fchown), SCMP_SYS(fchmod), SCMP_SYS(fstat)})) {
        result = ::fstat(descriptor, &status);
    } else if (isOneOf(call.number, {SCMP_SYS(fchownat), SCMP_SYS(fchmodat), SCMP_SYS(newfstatat),
                                     SCMP_SYS(statx)})) {
        result = ::fstatat(descriptor, pathAt(1), &status, AT_EMPTY_PATH);
    } else {
        result = ::stat(pathAt(0), &status);
    }
    return result == 0 ? std::optional(status) : std::nullopt;
}

void refuseWhereAbout(const std::vector<int>& numbers, const std::string& path, int error) {
    refuseCalls(numbers, [path, error](const PendingCall& call) {
        const std::optional<struct stat> target = targetOf(call);
        const bool isMeant =
            target && foundation::os::FileIdentity(*target) == foundation::os::identityAt(path);
        return isMeant ? error : 0;
    });
}

} // namespace

void refuseCalls(const std::vector<int>& numbers,
                 const std::function<int(const PendingCall&)>& refusal) {
    std::promise<int> notifications;
    // Started before the filter is loaded, so that it is not subject to it.
    std::thread([refusal, ready = notifications.get_future()]() mutable {
        answer(ready.get(), refusal);
    }).detach();
    Filter filter;
    filter.add(SCMP_ACT_NOTIFY, numbers);
    filter.load();
    notifications.set_value(filter.notifications());
}

void refuseCalls(const std::vector<int>& numbers, int error) {
    Filter filter;
    filter.add(SCMP_ACT_ERRNO(static_cast<std::uint32_t>(error)), numbers);
    filter.load();
}

void refuseOwnerOf(const std::string& path, int error) {
    refuseWhereAbout(ownerCalls, path, error);
}

void refuseModeOf(const std::string& path, int error) {
    refuseWhereAbout(modeCalls, path, error);
}

void refuseStatusOf(const std::string& path, int error) {
    refuseWhereAbout(statusCalls, path, error);
}

void refuseOwnersOfRegularFiles(int error) {
    refuseCalls(ownerCalls, [error](const PendingCall& call) {
        const std::optional<struct stat> target = targetOf(call);
        return target && S_ISREG(target->st_mode) ? error : 0;
    });
}

} // namespace tests
