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

/// The application's event loop, as libraries see it. All operations are called, and all callbacks run, on
/// the one thread that runs the loop. Callbacks may create and release timers and watches, their own
/// included.
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

    /// Calls `callback` with the descriptor and `POLLIN` whenever the descriptor is readable, until
    /// unwatched. A plain file counts as readable always. A watch is never called for an event of another
    /// descriptor, also not when it was made in the turn of the loop in which the other's watch ended.
    /// `reserved` must be 0. Throws std::invalid_argument for another value, std::logic_error for a
    /// descriptor that is watched already, std::system_error for one that is not open.
    virtual void watch_fd(file_desc fd, int reserved,
                          std::function<void(file_desc, poll_events)> callback) = 0;

    /// Ends a watch. Throws std::logic_error for a descriptor that is not watched.
    virtual void unwatch_fd(file_desc fd) = 0;

    /// The steady clock, in whole milliseconds.
    virtual milliseconds now() = 0;

    /// Starts a one-shot timer that calls `callback` when the clock reaches `now() + delay`; with a delay of
    /// 0 or less on the loop's next turn. Timers of the same due time fire in any order. `name` says what the
    /// timer is for; a loop may show it. `reserved` must be 0: anything else throws std::invalid_argument.
    virtual holder<timer_impl_base> create_timer(const char* name, milliseconds delay, milliseconds reserved,
                                                 std::function<void()> callback) = 0;
};

}  // namespace tolvan
