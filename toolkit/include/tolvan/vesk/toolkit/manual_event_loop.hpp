#pragma once

#include <algorithm>
#include <chrono>
#include <functional>
#include <map>
#include <memory>
#include <stdexcept>
#include <utility>
#include <vector>

#include <poll.h>

#include <tolvan/event_loop_v1.hpp>

namespace tolvan::vesk::toolkit {

/// An event loop for tests. Its clock stands still until the test moves it, so that long waits take no time;
/// descriptors are real.
class manual_event_loop : public event_loop_v1 {
  public:
    /// What `now()` tells. A test may set it before it makes timers.
    milliseconds clock{10'000'000};

    void watch_fd(file_desc fd, int, std::function<void(file_desc, poll_events)> callback) override {
        if (watches.contains(fd.value)) throw std::logic_error("watched twice");
        watches[fd.value] = std::move(callback);
    }

    void unwatch_fd(file_desc fd) override {
        if (watches.erase(fd.value) == 0) throw std::logic_error("unwatched twice");
    }

    milliseconds now() override { return clock; }

    holder<timer_impl_base> create_timer(const char*, milliseconds delay, milliseconds,
                                         std::function<void()> callback) override {
        const auto made = std::make_shared<timer>();
        made->callback = std::move(callback);
        timers.emplace(clock + delay, made);
        return made;
    }

    /// Moves the clock and fires what becomes due on the way, timers made on the way included.
    void advance(milliseconds span) {
        const auto end = clock + span;
        while (!timers.empty() && timers.begin()->first <= end) {
            const auto due = timers.extract(timers.begin());
            clock = std::max(clock, due.key());
            const auto running = due.mapped().lock();
            if (!running) continue;
            running->pending = false;
            running->callback();
        }
        clock = end;
    }

    /// Calls the watches of readable descriptors until `condition` holds; the clock stands still, unless the
    /// condition moves it. Throws std::logic_error when that takes 30 s of real time.
    template <typename Condition>
    void run_until(Condition condition) {
        const auto patience = std::chrono::steady_clock::now() + std::chrono::seconds(30);
        while (!condition()) {
            if (std::chrono::steady_clock::now() > patience)
                throw std::logic_error(
                    "run_until: the condition does not hold after 30 s; does it wait for a timer, which only "
                    "advance() moves?");
            poll_once(std::chrono::milliseconds(10));
        }
    }

    /// Calls the watches of descriptors that are readable within `limit` of real time.
    void poll_once(std::chrono::milliseconds limit) {
        std::vector<pollfd> waited;
        for (const auto& watch : watches) waited.push_back({watch.first, POLLIN, 0});
        if (::poll(waited.data(), waited.size(), static_cast<int>(limit.count())) <= 0) return;
        for (const auto& ready : waited) {
            if ((ready.revents & POLLIN) == 0 || !watches.contains(ready.fd)) continue;
            const auto callback = watches[ready.fd];  // which may end its watch
            callback({ready.fd}, {POLLIN});
        }
    }

  private:
    struct timer final : timer_impl_base {
        std::function<void()> callback;
    };

    std::multimap<milliseconds, std::weak_ptr<timer>> timers;
    std::map<int, std::function<void(file_desc, poll_events)>> watches;
};

}  // namespace tolvan::vesk::toolkit
