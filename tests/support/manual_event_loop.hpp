#pragma once

#include <algorithm>
#include <map>
#include <string>
#include <utility>
#include <vector>

#include <poll.h>

#include <tolvan/event_loop_v1.hpp>

namespace tolvan::test {

/// An event loop whose clock stands still until a test moves it, so that long waits take no time.
class manual_event_loop final : public event_loop_v1 {
  public:
    /// Far enough from 0 that the first latency report is due at once.
    milliseconds clock{10'000'000};

    /// Names and delays of all timers ever made, in order.
    std::vector<std::pair<std::string, long long>> made_timers;

    /// Whether making one throws.
    bool refuse_timers = false;

    void watch_fd(file_desc fd, int, std::function<void(file_desc, poll_events)> callback) override {
        if (watches.contains(fd.value)) throw std::logic_error("watched twice");
        watches[fd.value] = std::move(callback);
    }

    void unwatch_fd(file_desc fd) override {
        if (watches.erase(fd.value) == 0) throw std::logic_error("unwatched twice");
    }

    milliseconds now() override { return clock; }

    holder<timer_impl_base> create_timer(const char* name, milliseconds delay, milliseconds,
                                         std::function<void()> callback) override {
        if (refuse_timers) throw std::logic_error("no timer");
        made_timers.emplace_back(name, delay.count());
        const auto made = std::make_shared<timer>();
        made->callback = std::move(callback);
        timers.emplace(clock + delay, made);
        return made;
    }

    /// Moves the clock and fires what becomes due on the way, timers made on the way included.
    void advance(long long ms) {
        const auto end = clock + milliseconds(ms);
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

    /// Calls the watches of readable descriptors until `condition` holds; the clock stands still.
    template <typename Condition>
    void run_until(Condition condition) {
        const auto patience = std::chrono::steady_clock::now() + std::chrono::seconds(30);
        while (!condition()) {
            if (std::chrono::steady_clock::now() > patience) throw std::logic_error("waited in vain");
            poll_once(10);
        }
    }

    /// Calls the watches of descriptors that are readable within `timeout_ms` of real time.
    void poll_once(int timeout_ms) {
        std::vector<pollfd> waited;
        for (const auto& watch : watches) waited.push_back({watch.first, POLLIN, 0});
        if (::poll(waited.data(), waited.size(), timeout_ms) <= 0) return;
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

}  // namespace tolvan::test
