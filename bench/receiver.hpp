#pragma once

#include <memory>
#include <string>

#include <tolvan/vesk/hub/subscriber_impl.hpp>

#include "stopwatch.hpp"
#include "support/hub_sides.hpp"
#include "support/manual_event_loop.hpp"

namespace tolvan::bench {

/// A subscriber backend with one subscriber. The benchmark is its hub and its event loop.
class receiver {
  public:
    /// Subscribes and waits until the hub's side knows it. To be called once for each topic.
    void subscribe(const std::string& topic) {
        backend->subscribe(
            &client, topic, [this](const std::string&) { ++matched; },
            [](const std::string&, const std::string&) {});
        hub.filter();
        loop->poll_once(0);  // only a socket that is asked now and then may go on setting filters
    }

    /// Real time in which the receive handler takes in `count` messages that wait for it, in seconds. What
    /// it has queued is delivered afterwards.
    double receive_seconds(const std::string& topic, const std::string& data, int count) {
        for (int i = 0; i < count; ++i) hub.relay(topic, data);
        const double spent = seconds_of([this] { loop->poll_once(1000); });
        loop->advance(count);
        loop->made_timers.clear();
        return spent;
    }

    /// Matches so far.
    int matches() const { return matched; }

  private:
    test::hub_sides hub;
    std::shared_ptr<test::manual_event_loop> loop = std::make_shared<test::manual_event_loop>();
    std::shared_ptr<vesk::hub::subscriber_impl> backend =
        std::make_shared<vesk::hub::subscriber_impl>(loop, hub.sub_endpoint());
    vesk::v1::subscriber client;
    int matched = 0;
};

}  // namespace tolvan::bench
