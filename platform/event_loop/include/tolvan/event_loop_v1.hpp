#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>

namespace tolvan {

/// One timer of an event loop. Destroying it cancels it: its callback does not run any more.
class timer_impl_base {
  public:
    timer_impl_base() = default;
    timer_impl_base(const timer_impl_base&) = delete;
    timer_impl_base& operator=(const timer_impl_base&) = delete;
    virtual ~timer_impl_base();

    /// Set until the timer fires; already clear while its callback runs.
    bool pending = true;
};

/// The application's event loop, as libraries see it. Who writes a loop of his own keeps to this:
///
/// - **One thread.** All operations are called, and all callbacks run, on the one thread that runs the loop.
///   The loop outlives its run.
/// - **No nested turns.** A callback never runs inside another one. A loop that is told to run from inside a
///   callback refuses that, or runs the rest only.
/// - **Callbacks may do anything here.** They may begin and end watches and create and release timers, their
///   own included, and it takes effect at once: what has ended is not called any more, also when its event or
///   expiry was waiting already. The callback that runs, with all that it has captured, stays until it
///   returns.
/// - **Exceptions** out of a callback end the run, or reach whoever the loop has for them. Nothing is lost:
///   in the next run every other event and timer comes, and the watch that has thrown is still one.
/// - **Watches are level-triggered.** A callback that leaves something unread is called again, on a later
///   turn. A watch is never called for an event of another descriptor, also not when it was made in the turn
///   in which the watch of the other one ended, nor when the two have the same number.
/// - **Nobody starves.** However often one descriptor is readable or one timer is made again, the others get
///   their turn.
/// - **Timers fire on the grid of milliseconds.** `now()` is the steady clock cut to whole milliseconds. A
///   timer of d ms that is made at any moment while `now()` is t is due at t + d: not before it, and as soon
///   after it as the loop gets there. It counts from the grid, not from the moment of the call. Timers fire
///   in the order of the times at which they are due; those of one time in any order.
///
/// What the grid means for the bus: it handles one message a timer of 1 ms. On the grid these are 1000 a
/// second, the first of them half a millisecond after its receipt on average. Timers that count from the
/// moment of the call are late by a little each time, which adds up: some 930 messages a second, and a
/// request, which takes three, a millisecond longer.
class event_loop_v1 {
  public:
    /// A span of time, or a point in time counted from the steady clock's zero.
    using milliseconds = std::chrono::duration<long long, std::milli>;

    /// A file descriptor of the operating system. Not owned.
    struct file_desc {
        int value = -1;
    };

    /// A set of event bits; whose bits they are is told by the operation that gives them.
    struct poll_events {
        std::int16_t bits = 0;
    };

    /// Shared ownership of a timer. Releasing the last holder of a pending timer cancels it.
    template <typename T>
    using holder = std::shared_ptr<T>;

    event_loop_v1() = default;
    event_loop_v1(const event_loop_v1&) = delete;
    event_loop_v1& operator=(const event_loop_v1&) = delete;
    virtual ~event_loop_v1();

    /// Calls `callback` with the descriptor and `POLLIN` whenever the descriptor is readable or has come to
    /// its end, until unwatched. A plain file counts as readable always. The descriptor stays its owner's,
    /// who ends the watch before he closes it. `reserved` must be 0. Throws std::invalid_argument for another
    /// value, std::logic_error for a descriptor that is watched already, std::system_error for one that is
    /// not open.
    virtual void watch_fd(file_desc fd, int reserved,
                          std::function<void(file_desc, poll_events)> callback) = 0;

    /// Ends a watch. Throws std::logic_error for a descriptor that is not watched.
    virtual void unwatch_fd(file_desc fd) = 0;

    /// The steady clock, in whole milliseconds.
    virtual milliseconds now() = 0;

    /// Starts a one-shot timer that calls `callback` when the clock reaches `now() + delay`; with a delay of
    /// 0 or less on the loop's next turn, and with one that is beyond the clock's range never. `name` says
    /// what the timer is for; a loop may show it. `reserved` must be 0: anything else throws
    /// std::invalid_argument.
    virtual holder<timer_impl_base> create_timer(const char* name, milliseconds delay, milliseconds reserved,
                                                 std::function<void()> callback) = 0;
};

}  // namespace tolvan
