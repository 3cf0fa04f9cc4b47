#include "bus/pacer.hpp"

#include <cerrno>
#include <cstdint>
#include <system_error>

#include <sys/timerfd.h>
#include <unistd.h>

namespace tolvan::vesk::tool {

namespace {

using nanoseconds = std::chrono::nanoseconds;

timespec as_timespec(nanoseconds time) {
    const auto whole = std::chrono::floor<std::chrono::seconds>(time);
    return {static_cast<decltype(timespec::tv_sec)>(whole.count()),
            static_cast<decltype(timespec::tv_nsec)>((time - whole).count())};
}

}  // namespace

pacer::pacer(event_loop_v1& loop, double calls_a_second, std::function<void()> due)
    : events(loop),
      when_due(std::move(due)),
      turn(1 / calls_a_second),
      timer(::timerfd_create(CLOCK_MONOTONIC, TFD_CLOEXEC | TFD_NONBLOCK)) {
    if (timer.get() < 0) throw std::system_error(errno, std::generic_category(), "timerfd_create");
    arm();
    events.watch_fd({timer.get()}, 0, [this](auto, auto) { expired(); });
}

pacer::~pacer() {
    events.unwatch_fd({timer.get()});
}

// A moment that has passed already makes the timer expire at once.
void pacer::arm() {
    const double moment = turns + std::uniform_real_distribution(0.0, 1.0)(random);
    const auto at = begun.time_since_epoch() + std::chrono::duration_cast<nanoseconds>(moment * turn);
    const itimerspec once{{}, as_timespec(at)};
    if (::timerfd_settime(timer.get(), TFD_TIMER_ABSTIME, &once, nullptr) != 0)
        throw std::system_error(errno, std::generic_category(), "timerfd_settime");
}

void pacer::expired() {
    std::uint64_t expirations = 0;
    if (::read(timer.get(), &expirations, sizeof expirations) < 0) return;
    ++turns;
    arm();
    when_due();
}

}  // namespace tolvan::vesk::tool
