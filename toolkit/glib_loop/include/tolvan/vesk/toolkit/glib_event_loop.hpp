#pragma once

#include <tolvan/vesk/toolkit/embedded_event_loop.hpp>

struct _GMainContext;  // GMainContext
struct _GSource;       // GSource

namespace tolvan::vesk::toolkit {

/// The event loop of an application that runs GLib's main loop, as those of GTK do, and those of Qt on Linux:
/// the bus's callbacks come from its `GMainContext`. In a main loop that runs inside a callback of the bus
/// they wait.
class glib_event_loop final : public embedded_event_loop {
  public:
    /// `context` is that of the application's main loop; null stands for the default one. Exceptions out of
    /// callbacks cannot pass through GLib: they go to `failed`, on the loop's thread, and the loop goes on,
    /// with nothing lost. Without `failed` they end the process by std::terminate.
    explicit glib_event_loop(_GMainContext* context = nullptr, failure_handler failed = {});
    ~glib_event_loop() override;

  private:
    _GSource* const source;
};

}  // namespace tolvan::vesk::toolkit
