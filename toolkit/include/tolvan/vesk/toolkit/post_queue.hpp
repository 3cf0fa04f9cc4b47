#pragma once

#include <functional>
#include <memory>

#include <tolvan/event_loop_v1.hpp>

namespace tolvan::vesk::toolkit {

/// Lets other threads run functions on the thread of an event loop, whichever loop it is: the bus and its
/// objects must be called there only.
class post_queue {
  public:
    /// Made and destroyed on the loop's thread. Throws std::invalid_argument without a loop,
    /// std::system_error when there is no descriptor left. Functions that have not run by its end are
    /// destroyed without having run.
    explicit post_queue(std::shared_ptr<event_loop_v1> loop);
    post_queue(const post_queue&) = delete;
    post_queue& operator=(const post_queue&) = delete;
    ~post_queue();

    /// Wakes the loop and has it run `function`, one a turn, in the order in which they were posted. May be
    /// called from any thread, that of the loop included, as long as this object lives; does not wait. While
    /// the loop does not run, or has been stopped, functions wait for its next run. An exception out of one
    /// is an exception out of a callback of the loop; the others run nevertheless. `function` is destroyed on
    /// the loop's thread, and may destroy this object. Throws std::invalid_argument when it is empty.
    void post(std::function<void()> function);

  private:
    struct state;

    const std::shared_ptr<event_loop_v1> events;
    const std::shared_ptr<state> queue;
};

}  // namespace tolvan::vesk::toolkit
