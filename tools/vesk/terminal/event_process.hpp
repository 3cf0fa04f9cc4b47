#pragma once

#include <functional>
#include <memory>
#include <string>

#include <tolvan/asio_event_loop.hpp>

#include "options/common_options.hpp"
#include "terminal/signals.hpp"
#include "terminal/tell.hpp"

namespace tolvan::vesk::tool {

/// A subcommand that runs on an event loop until it is told to end, by itself or by a signal.
class event_process {
  public:
    using milliseconds = event_loop_v1::milliseconds;
    using timer = event_loop_v1::holder<timer_impl_base>;

    /// `code_on_signal` is the exit status when SIGINT, SIGTERM or SIGHUP ends it.
    explicit event_process(int code_on_signal);

    /// `on_signal` is called for each of these signals, and sees to the end.
    explicit event_process(std::function<void()> on_signal);

    /// Runs the loop until `finish`; gives the exit status.
    int run();

    /// Ends `run` with that exit status. The first call counts.
    void finish(int code);

    /// Ends `run` with that exit status and says why on stderr.
    void finish(int code, const std::string& reason);

    /// Calls `callback` once after `delay`, unless the result is released before.
    timer after(milliseconds delay, std::function<void()> callback);
    timer after(seconds delay, std::function<void()> callback);

    event_loop_v1& loop() { return *events; }
    const std::shared_ptr<asio_event_loop>& shared_loop() const { return events; }

  private:
    termination_signals signals;
    std::shared_ptr<asio_event_loop> events = std::make_shared<asio_event_loop>();
    bool finished = false;
    int status = 0;
};

}  // namespace tolvan::vesk::tool
