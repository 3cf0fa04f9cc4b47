#pragma once

#include <memory>
#include <string>

#include <tolvan/asio_event_loop.hpp>
#include <tolvan/lumo/v1/log.hpp>
#include <tolvan/vesk/v1/connection.hpp>

#include "options/common_options.hpp"
#include "terminal/signals.hpp"
#include "terminal/tell.hpp"

namespace tolvan::vesk::tool {

/// What a subcommand that talks over the bus stands on: the event loop, the connection, the log on stderr and
/// the signals that end it.
class session {
  public:
    using milliseconds = event_loop_v1::milliseconds;
    using timer = event_loop_v1::holder<timer_impl_base>;

    /// Connects. `code_on_signal` is the exit status when SIGINT, SIGTERM or SIGHUP ends it. Throws
    /// std::runtime_error for a rejected endpoint.
    session(const common_options& common, int code_on_signal);

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

  private:
    termination_signals signals;
    std::shared_ptr<asio_event_loop> events = std::make_shared<asio_event_loop>();
    lumo::v1::sink_registration log;
    v1::connection connection;
    bool finished = false;
    int status = 0;
};

}  // namespace tolvan::vesk::tool
