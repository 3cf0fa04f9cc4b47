#pragma once

#include <functional>
#include <memory>

#include <tolvan/event_loop_v1.hpp>
#include <tolvan/vesk/toolkit/probe_pace.hpp>
#include <tolvan/vesk/toolkit/probe_topic.hpp>
#include <tolvan/vesk/v1/publisher.hpp>
#include <tolvan/vesk/v1/subscriber.hpp>

namespace tolvan::vesk::toolkit {

/// Knows whether the hub is there, by messages to itself on a topic that begins with `probe_prefix`. Sends
/// them until one is back, at growing intervals (see probe_pace) and without limit, and after that one every
/// few seconds.
///
/// The hub is *ready* when publications of this process are relayed, and when it knows all subscriptions that
/// were made before this object, or in the same turn of the event loop. What is published earlier may reach
/// nobody, without a word.
///
/// Made, used and destroyed on the event loop's thread, where all callbacks run. They may call anything of
/// the bus and of this object, its destruction included; destroyed, it calls no more.
class hub_presence {
  public:
    using milliseconds = event_loop_v1::milliseconds;

    /// Each may be empty.
    struct callbacks {
        std::function<void()> ready{};  ///< the hub is ready for the first time
        std::function<void()> lost{};   ///< it has not answered for two seconds
        std::function<void()> back{};   ///< it is ready again; what was subscribed meanwhile is known too
    };

    struct options {
        /// From an answer to the next probe. 0 sends none any more: `lost` and `back` are never called then.
        milliseconds probe_interval{2000};
    };

    /// Begins on the loop's next turn. Throws std::invalid_argument without a loop or for a negative
    /// interval.
    hub_presence(std::shared_ptr<event_loop_v1> loop, callbacks called);
    hub_presence(std::shared_ptr<event_loop_v1> loop, callbacks called, options chosen);
    hub_presence(const hub_presence&) = delete;
    hub_presence& operator=(const hub_presence&) = delete;

    /// Whether the hub has been ready and is not known to be lost.
    bool is_there() const { return known; }

    /// Calls `ready` as soon as the hub is ready, and knows all subscriptions that were made before this call
    /// or in the same turn of the loop; or `timed_out` when that takes longer than `limit`. Exactly one of
    /// them is called, and not before this returns, unless a further call or the end of this object comes
    /// first: then neither is. Throws std::invalid_argument for an empty callback.
    void wait_until_ready(milliseconds limit, std::function<void()> ready, std::function<void()> timed_out);

  private:
    enum class phase { seeking, settling, idle };
    struct wait {
        std::function<void()> ready;
        event_loop_v1::holder<timer_impl_base> limit;
    };

    void seek();
    void settle();
    void ask_anew(phase entered);
    void begin_to_ask(probe_pace chosen);
    void ask();
    bool is_out_of_patience();
    void see();
    void arrive();
    void rest();
    void ask_again();
    void lose();
    void then(milliseconds delay, void (hub_presence::*step)());

    const std::shared_ptr<event_loop_v1> events;
    const std::shared_ptr<const callbacks> call;
    const milliseconds interval;
    const std::shared_ptr<const void> alive = std::make_shared<char>();
    phase current = phase::seeking;
    bool known = false;
    bool was_known = false;
    probe_topic topic;
    probe_pace pace;
    int unanswered = 0;  ///< probes since `asked_at`
    milliseconds asked_at{0};
    std::unique_ptr<wait> waiting;
    event_loop_v1::holder<timer_impl_base> next;
    v1::publisher publisher;
    v1::subscriber subscriber;
};

}  // namespace tolvan::vesk::toolkit
