#pragma once

#include <memory>
#include <string>

#include <tolvan/vesk/hub/connection_impl.hpp>
#include <tolvan/vesk/v1/publisher.hpp>
#include <tolvan/vesk/v1/subscriber.hpp>

#include "require.hpp"
#include "support/hub_sides.hpp"
#include "support/manual_event_loop.hpp"

namespace tolvan::fuzz {

/// All four backends over real sockets, with a clock set by hand and the fuzzer as the hub. One for all
/// inputs: what an input leaves behind, the next one meets.
class process_on_the_bus {
  public:
    process_on_the_bus() {
        GTEST_FLAG_SET(break_on_failure, true);  // what the hub's sides expect of their sockets
        vesk::hub::connection_impl connection;
        connection.set_event_loop(loop);
        connection.initialize({.pub_endpoint = hub.pub_endpoint(), .sub_endpoint = hub.sub_endpoint()});
        hub.meet_publisher();
        witness.subscribe(
            "witness", [this](const auto&) { seen = true; }, nullptr);
    }

    process_on_the_bus(const process_on_the_bus&) = delete;
    process_on_the_bus& operator=(const process_on_the_bus&) = delete;
    ~process_on_the_bus() { vesk::v1::release_backends(); }

    /// Returns when everything that was relayed before has been received and handled.
    void settle() {
        seen = false;
        hub.relay("witness", "");
        while (!seen) loop->poll_once(0);
        loop->advance(1000);
        loop->made_timers.clear();  // which it only keeps for tests
    }

    test::hub_sides hub;
    std::shared_ptr<test::manual_event_loop> loop = std::make_shared<test::manual_event_loop>();
    vesk::v1::publisher publisher;

  private:
    vesk::v1::subscriber witness;
    bool seen = false;
};

}  // namespace tolvan::fuzz
