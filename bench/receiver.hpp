#pragma once

#include <list>
#include <memory>
#include <string>

#include <tolvan/vesk/hub/subscriber_impl.hpp>

#include "ratio.hpp"
#include "support/hub_sides.hpp"
#include "support/manual_event_loop.hpp"

namespace tolvan::bench {

/// A subscriber backend. The benchmark is its hub and its event loop.
class receiver {
  public:
    /// One more subscriber; for another topic of the last one use `subscribe`.
    void add_subscriber() { clients.emplace_back(); }

    /// Subscribes for the last subscriber, with a notify callback alone, and waits until the hub's side knows
    /// it. To be called once for each topic.
    void subscribe(const std::string& topic) {
        backend->subscribe(
            &clients.back(), topic, [this](const std::string&) { ++matched; }, nullptr);
        hub.filter();
        loop->poll_once(0);  // only a socket that is asked now and then may go on setting filters
    }

    /// CPU time in which the receive handler takes in `count` messages that wait for it, in seconds.
    double receive_seconds(const std::string& topic, const std::string& data, int count) {
        return receive(topic, data, count, [](auto call) { return cpu_seconds_of(call); });
    }

    /// What `measure` says of the call that takes in `count` messages. What that has queued is delivered
    /// afterwards.
    template <typename Measure>
    double receive(const std::string& topic, const std::string& data, int count, Measure measure) {
        for (int i = 0; i < count; ++i) hub.relay(topic, data);
        const double measured = measure([this] { loop->poll_once(1000); });
        loop->advance(count * static_cast<int>(clients.size()));
        loop->made_timers.clear();
        return measured;
    }

    /// Matches so far.
    int matches() const { return matched; }

  private:
    test::hub_sides hub;
    std::shared_ptr<test::manual_event_loop> loop = std::make_shared<test::manual_event_loop>();
    std::shared_ptr<vesk::hub::subscriber_impl> backend =
        std::make_shared<vesk::hub::subscriber_impl>(loop, hub.sub_endpoint());
    std::list<vesk::v1::subscriber> clients{1};
    int matched = 0;
};

}  // namespace tolvan::bench
