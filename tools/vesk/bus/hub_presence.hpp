#pragma once

#include <functional>

#include <tolvan/event_loop_v1.hpp>
#include <tolvan/vesk/v1/publisher.hpp>
#include <tolvan/vesk/v1/subscriber.hpp>

#include "bus/numbered_topic.hpp"
#include "bus/probe_pace.hpp"

namespace tolvan::vesk::tool {

/// Knows whether the hub is there, by messages to itself: one that is back says that both roads are open, and
/// that the hub knows every subscription that the process had made before this object. Sends them every few
/// milliseconds while it waits, without limit, and every other second while the hub is there.
class hub_presence {
  public:
    /// Run on the event loop's thread and may destroy the object. May be empty.
    struct callbacks {
        std::function<void()> ready{};  ///< the hub has answered for the first time
        std::function<void()> lost{};   ///< it does not answer any more; told two to five seconds after
        std::function<void()> back{};   ///< it answers again
    };

    /// Needs a connection to the bus, and the loop for as long as it lives. Released, it stops.
    hub_presence(event_loop_v1& loop, callbacks called);
    hub_presence(const hub_presence&) = delete;
    hub_presence& operator=(const hub_presence&) = delete;

    /// Whether the hub has answered and is not known to be lost.
    bool is_there() const { return there; }

  private:
    using milliseconds = event_loop_v1::milliseconds;

    void seek();
    void see();
    void watch();
    void look();
    void lose();
    void send();
    void then(milliseconds delay, void (hub_presence::*step)());

    event_loop_v1& events;
    const callbacks call;
    const numbered_topic topic;
    bool there = false;
    bool was_there = false;
    bool answered = false;  ///< since `watch`
    probe_pace pace;
    event_loop_v1::holder<timer_impl_base> next;
    v1::publisher publisher;
    v1::subscriber subscriber;
};

}  // namespace tolvan::vesk::tool
