// An event loop of one's own: the whole contract of tolvan::event_loop_v1 over epoll alone.
//
// The kernel is asked for one event a turn, so that none is stale: what it names is watched and readable
// now, whatever callbacks did before, and the other events stay where they are when a callback throws. The
// clock of the timers is one more descriptor, set to a point of the millisecond grid. What runs is held until
// it returns, for a callback may end its own watch and let go of its own timer.
#pragma once

#include <algorithm>
#include <cerrno>
#include <map>
#include <stdexcept>
#include <string>
#include <system_error>
#include <utility>

#include <poll.h>
#include <sys/epoll.h>
#include <sys/eventfd.h>
#include <sys/timerfd.h>
#include <unistd.h>

#include <tolvan/event_loop_v1.hpp>

class epoll_event_loop final : public tolvan::event_loop_v1 {
  public:
    epoll_event_loop() { add(clock, clock); }
    ~epoll_event_loop() override {
        ::close(clock);
        ::close(epoll);
    }

    void run() {
        struct ending {
            epoll_event_loop& loop;
            ~ending() { loop.running = loop.stopping = false; }
        };
        if (running) throw std::logic_error("event loop: run() was called from inside run()");
        const ending at_the_end{*this};
        for (running = true; !stopping;) turn();
    }

    void stop() { stopping = true; }

    void watch_fd(file_desc fd, int reserved, std::function<void(file_desc, poll_events)> callback) override {
        if (reserved != 0) throw std::invalid_argument("watch_fd: the second argument is reserved");
        if (watches.contains(fd.value)) throw std::logic_error(named(fd) + " is already watched");
        const auto added = std::make_shared<watch>(std::move(callback));
        if (!add(fd.value, fd.value)) add(added->stand_in = ::eventfd(1, EFD_CLOEXEC), fd.value);
        watches.emplace(fd.value, added);
    }

    void unwatch_fd(file_desc fd) override {
        const auto ended = watches.extract(fd.value);
        if (!ended) throw std::logic_error(named(fd) + " is not watched");
        ::epoll_ctl(epoll, EPOLL_CTL_DEL, fd.value, nullptr);
    }

    milliseconds now() override {
        return std::chrono::floor<milliseconds>(std::chrono::steady_clock::now().time_since_epoch());
    }

    holder<tolvan::timer_impl_base> create_timer(const char* /*name*/, milliseconds delay,
                                                 milliseconds reserved,
                                                 std::function<void()> callback) override {
        if (reserved.count() != 0)
            throw std::invalid_argument("create_timer: the second duration is reserved");
        constexpr milliseconds longest = std::chrono::hours(24 * 365);  // more would overflow
        const auto made = std::make_shared<timer>(std::move(callback));
        timers.emplace(now() + std::clamp(delay, milliseconds(0), longest), made);
        return made;
    }

  private:
    struct watch {
        explicit watch(std::function<void(file_desc, poll_events)>&& called) : callback(std::move(called)) {}
        ~watch() { ::close(stand_in); }
        std::function<void(file_desc, poll_events)> callback;
        int stand_in = -1;  // always readable, for a plain file, which epoll does not take
    };

    struct timer final : tolvan::timer_impl_base {
        explicit timer(std::function<void()>&& called) : callback(std::move(called)) {}
        std::function<void()> callback;
    };

    void turn() {
        set_clock();
        epoll_event ready{};
        if (::epoll_wait(epoll, &ready, 1, -1) != 1) return;  // a signal
        if (ready.data.fd == clock) return fire();
        const auto running_watch = watches.at(ready.data.fd);
        running_watch->callback({ready.data.fd}, {POLLIN});
    }

    void set_clock() const {
        const milliseconds due = timers.empty() ? milliseconds(0) : timers.begin()->first;  // 0 is never
        itimerspec at{};
        at.it_value.tv_sec = static_cast<time_t>(due.count() / 1000);
        at.it_value.tv_nsec = static_cast<long>(due.count() % 1000 * 1'000'000);
        ::timerfd_settime(clock, TFD_TIMER_ABSTIME, &at, nullptr);
    }

    void fire() {
        const auto expired = timers.extract(timers.begin());
        const auto running_timer = expired.mapped().lock();
        if (!running_timer) return;  // nobody holds it any more
        running_timer->pending = false;
        running_timer->callback();
    }

    // False for a plain file. What happens to `fd` is told under the name of `watched`.
    bool add(int fd, int watched) const {
        epoll_event event{.events = EPOLLIN, .data = {.fd = watched}};
        if (::epoll_ctl(epoll, EPOLL_CTL_ADD, fd, &event) == 0) return true;
        if (errno == EPERM) return false;
        throw std::system_error(errno, std::generic_category(), named({watched}));
    }

    static std::string named(file_desc fd) { return "descriptor " + std::to_string(fd.value); }

    const int epoll = ::epoll_create1(EPOLL_CLOEXEC);
    const int clock = ::timerfd_create(CLOCK_MONOTONIC, TFD_CLOEXEC);
    std::map<int, std::shared_ptr<watch>> watches;
    std::multimap<milliseconds, std::weak_ptr<timer>> timers;  // by when they are due
    bool running = false, stopping = false;
};
