#include "foundation/os/WakeUp.h"

#include "foundation/os/HighDescriptor.h"
#include "foundation/os/SystemLimits.h"

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <ctime>
#include <poll.h>
#include <sys/epoll.h>
#include <sys/eventfd.h>
#include <sys/timerfd.h>
#include <unistd.h>

namespace foundation::os {

namespace {

timespec toTimespec(std::chrono::nanoseconds duration) noexcept {
    const auto seconds = std::chrono::duration_cast<std::chrono::seconds>(duration);
    timespec time{};
    time.tv_sec = static_cast<std::time_t>(seconds.count());
    time.tv_nsec = static_cast<long>((duration - seconds).count());
    return time;
}

bool addTo(int any, int descriptor) noexcept {
    epoll_event event{};
    event.events = EPOLLIN;
    return ::epoll_ctl(any, EPOLL_CTL_ADD, descriptor, &event) == 0;
}

} // namespace

WakeUp::WakeUp(int awaited) noexcept
    : any(liftDescriptor(FileDescriptor(::epoll_create1(EPOLL_CLOEXEC)))) {
    if (any) {
        timer = liftDescriptor(
            FileDescriptor(::timerfd_create(CLOCK_MONOTONIC, TFD_NONBLOCK | TFD_CLOEXEC)));
    }
    if (timer) {
        flag = liftDescriptor(FileDescriptor(::eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC)));
    }
    if (!flag || !addTo(any.get(), awaited) || !addTo(any.get(), timer.get()) ||
        !addTo(any.get(), flag.get())) {
        any.reset();
    }
}

void WakeUp::setAlarm(std::optional<Time> time) noexcept {
    const bool isEarlyEnough = alarm && (!time || *alarm <= *time);
    if (time == alarm || (isEarlyEnough && *alarm > std::chrono::steady_clock::now())) {
        return;
    }
    alarm = time;
    itimerspec setting{};
    if (time) {
        // All zero would turn it off.
        setting.it_value = toTimespec(
            std::max(time->time_since_epoch(), Time::duration(std::chrono::nanoseconds(1))));
    }
    // The arguments are right, so that it cannot fail.
    ::timerfd_settime(timer.get(), TFD_TIMER_ABSTIME, &setting, nullptr);
}

void WakeUp::call(bool isCalledNow) noexcept {
    if (isCalledNow == isCalled) {
        return;
    }
    isCalled = isCalledNow;
    std::uint64_t count = 1;
    // Neither blocks: at most one call is in it.
    const ssize_t size = isCalled ? ::write(flag.get(), &count, sizeof count)
                                  : ::read(flag.get(), &count, sizeof count);
    static_cast<void>(size);
}

WakeUp::Reason WakeUp::wait(std::chrono::nanoseconds timeOut) const noexcept {
    pollfd request{any.get(), POLLIN, 0};
    const timespec limit = toTimespec(std::max(timeOut, std::chrono::nanoseconds::zero()));
    const int ready = ::ppoll(&request, 1, &limit, nullptr);
    if (ready == -1) {
        return Reason::signal;
    }
    return ready == 0 ? Reason::timeOut : Reason::readable;
}

std::string reasonForNoWakeUp(int error) {
    return error == ENOSPC ? describeLowest({"fs.epoll.max_user_watches"})
                           : reasonForNoDescriptor(error);
}

} // namespace foundation::os
