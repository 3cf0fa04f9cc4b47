// Tests the controller with a hub of its own, and with a clock that stands still until the test moves it.
#include "controller.hpp"

#include <cstdlib>
#include <iostream>

#include <tolvan/relay/hub.hpp>
#include <tolvan/vesk/toolkit/manual_event_loop.hpp>
#include <tolvan/vesk/toolkit/typed_calls.hpp>
#include <tolvan/vesk/v1/connection.hpp>

namespace {

using namespace std::chrono_literals;
using namespace thermostat;
namespace toolkit = tolvan::vesk::toolkit;

void expect(bool holds, const char* what) {
    if (holds) return;
    std::cerr << "not so: " << what << '\n';
    std::exit(1);
}

}  // namespace

int main() {
    const tolvan::relay::hub hub({.pub_endpoint = "tcp://127.0.0.1:*", .sub_endpoint = "tcp://127.0.0.1:*"});
    const auto loop = std::make_shared<toolkit::manual_event_loop>();
    const tolvan::vesk::v1::connection bus(
        {.pub_endpoint = hub.pub_endpoint(), .sub_endpoint = hub.sub_endpoint()}, loop);

    const controller tested(loop);
    tolvan::vesk::v1::publisher sensor;
    loop->run_until([&] {
        toolkit::publish(sensor, reading::topic, reading{.celsius = 15});
        loop->advance(1ms);
        return tested.current().celsius == 15;
    });
    expect(tested.current().heating == heater::on, "a cold room is heated");

    loop->advance(controller::patience - 1ms);
    expect(tested.current().heating == heater::on, "a reading may be late");
    loop->advance(controller::patience);
    expect(tested.current().heating == heater::off, "nothing is heated without a sensor");
}
