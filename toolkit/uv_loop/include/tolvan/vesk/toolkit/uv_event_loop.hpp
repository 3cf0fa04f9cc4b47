#pragma once

#include <tolvan/vesk/toolkit/embedded_event_loop.hpp>

struct uv_loop_s;  // uv_loop_t

namespace tolvan::vesk::toolkit {

/// The event loop of an application that runs libuv: the bus's callbacks come from its `uv_loop_t`.
///
/// As long as this object lives `uv_run` goes on; `uv_stop` ends it. A connection to the bus keeps the object
/// alive. Before `uv_loop_close`: `release_backends`, let go of the object, and run the loop once more, which
/// closes its handle.
class uv_event_loop final : public embedded_event_loop {
  public:
    /// Exceptions out of callbacks cannot pass through libuv: they go to `failed`, on the loop's thread, and
    /// the loop goes on, with nothing lost, unless that ends it by `uv_stop`. Without `failed` they end the
    /// process by std::terminate. Throws std::system_error when libuv does not take the handle.
    explicit uv_event_loop(uv_loop_s* loop, failure_handler failed = {});
    ~uv_event_loop() override;

  private:
    struct handle;
    static handle* start(uv_loop_s* loop, handle&& made);

    handle* const polled;  ///< libuv's until it is closed
};

}  // namespace tolvan::vesk::toolkit
