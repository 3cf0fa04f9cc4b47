#pragma once

#include <chrono>
#include <functional>
#include <random>

#include <tolvan/event_loop_v1.hpp>
#include <tolvan/wire/descriptor.hpp>

namespace tolvan::vesk::tool {

/// Calls back so many times a second, each time at a random moment of its turn: on the event loop's own
/// timers every call would come just after the whole millisecond at which the bus delivers.
class pacer {
  public:
    /// `due` must not destroy the pacer. Throws std::system_error.
    pacer(event_loop_v1& loop, double calls_a_second, std::function<void()> due);
    pacer(const pacer&) = delete;
    pacer& operator=(const pacer&) = delete;
    ~pacer();

  private:
    using clock = std::chrono::steady_clock;

    void arm();
    void expired();

    event_loop_v1& events;
    const std::function<void()> when_due;
    const std::chrono::duration<double> turn;
    const clock::time_point begun = clock::now();
    double turns = 0;
    std::minstd_rand random;
    wire::descriptor timer;
};

}  // namespace tolvan::vesk::tool
