#pragma once

#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include <tolvan/vesk/toolkit/manual_event_loop.hpp>

namespace tolvan::test {

/// A loop with a clock set by hand that notes the timers made, or makes none.
class manual_event_loop final : public vesk::toolkit::manual_event_loop {
  public:
    /// Names and delays of all timers ever made, in order.
    std::vector<std::pair<std::string, long long>> made_timers;

    /// Whether making one throws.
    bool refuse_timers = false;

    holder<timer_impl_base> create_timer(const char* name, milliseconds delay, milliseconds reserved,
                                         std::function<void()> callback) override {
        if (refuse_timers) throw std::logic_error("no timer");
        made_timers.emplace_back(name, delay.count());
        return vesk::toolkit::manual_event_loop::create_timer(name, delay, reserved, std::move(callback));
    }

    void advance(long long ms) { vesk::toolkit::manual_event_loop::advance(milliseconds(ms)); }
    void poll_once(int ms) { vesk::toolkit::manual_event_loop::poll_once(std::chrono::milliseconds(ms)); }
};

}  // namespace tolvan::test
