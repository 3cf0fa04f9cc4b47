#pragma once

#include <exception>
#include <functional>
#include <memory>

#include <tolvan/event_loop_v1.hpp>

namespace tolvan::vesk::toolkit {

/// An event loop inside another one: for an application that has a loop of its own already. That one watches
/// a single descriptor, and takes a turn here whenever it is readable. Timers fire on the millisecond grid of
/// the steady clock, whatever timers the other loop has.
///
///     embedded_event_loop loop;
///     when readable(loop.descriptor()): loop.turn();
///
/// What watches the descriptor has to tell of it as long as it is readable (level-triggered).
class embedded_event_loop : public event_loop_v1 {
  public:
    /// Throws std::system_error when there is no descriptor left.
    embedded_event_loop();
    ~embedded_event_loop() override;

    /// Readable while a turn would do something. Owned by this object.
    int descriptor() const;

    /// Runs at most one callback, that of a timer that is due or of a readable descriptor, and does not wait.
    /// The callback may destroy this object. Throws what the callback throws, with nothing lost for the next
    /// turn; std::logic_error when called from inside a callback.
    void turn();

    /// Is given an exception out of a callback that cannot pass through the loop around this one.
    using failure_handler = std::function<void(std::exception_ptr failure)>;

    /// The same inside a loop written in C: exceptions go to `failed`, which must outlive the call; without
    /// one they end the process by std::terminate.
    void turn(const failure_handler& failed) noexcept;

    void watch_fd(file_desc fd, int reserved, std::function<void(file_desc, poll_events)> callback) override;
    void unwatch_fd(file_desc fd) override;
    milliseconds now() override;
    holder<timer_impl_base> create_timer(const char* name, milliseconds delay, milliseconds reserved,
                                         std::function<void()> callback) override;

  private:
    struct state;
    const std::shared_ptr<state> core;
};

}  // namespace tolvan::vesk::toolkit
