#pragma once

#include <tolvan/event_loop_v1.hpp>

namespace tolvan {

/// An event loop for a whole application. Timers fire on the millisecond grid of the steady clock.
class asio_event_loop final : public event_loop_v1 {
  public:
    asio_event_loop();
    ~asio_event_loop() override;

    /// Runs callbacks on the calling thread until `stop`. An exception out of a callback leaves `run`; a
    /// later `run` goes on with nothing lost. Throws std::logic_error when called from inside a callback.
    void run();

    /// Ends the `run` in progress once the callback that is running has returned, or, when none is in
    /// progress, the next one at once. May be called from any thread.
    void stop();

    void watch_fd(file_desc fd, int reserved, std::function<void(file_desc, poll_events)> callback) override;
    void unwatch_fd(file_desc fd) override;
    milliseconds now() override;
    holder<timer_impl_base> create_timer(const char* name, milliseconds delay, milliseconds reserved,
                                         std::function<void()> callback) override;

  private:
    struct state;
    std::shared_ptr<state> loop;
};

}  // namespace tolvan
