#include "controller.hpp"

#include <stdexcept>

#include <tolvan/vesk/toolkit/typed_calls.hpp>

namespace thermostat {

namespace toolkit = tolvan::vesk::toolkit;

namespace {

constexpr auto announcement_interval = std::chrono::milliseconds(500);
constexpr double slack = 0.5;  // degrees by which the room may be too cold or too warm
constexpr double coldest = 5, warmest = 30;

}  // namespace

// Who hears of this controller may send it a request at once: so it is not heard before it can be reached.
controller::controller(std::shared_ptr<tolvan::event_loop_v1> application_loop)
    : loop(application_loop), hub(loop, {.ready = [this] { announce(); }}) {
    server.set_uuid("controller");
    toolkit::serve<wish>(server, "set", [this](const wish& asked) { return set(asked); });
    toolkit::serve<question>(server, "show", [this](const question&) { return now; });
    sensor.subscribe(reading::topic, nullptr,
                     [this](const std::string&, const reading& measured) { regulate(measured); });
}

void controller::regulate(const reading& measured) {
    now.celsius = measured.celsius;
    if (measured.celsius < now.target - slack) now.heating = heater::on;
    if (measured.celsius > now.target + slack) now.heating = heater::off;
    sensor_watch = loop->create_timer("sensor", patience, {}, [this] { miss_the_sensor(); });
    announce();
}

// What is thrown here is what the client's request fails with.
state controller::set(const wish& asked) {
    if (!(asked.target >= coldest && asked.target <= warmest))
        throw std::out_of_range("a room is between 5 and 30 degrees warm");
    now.target = asked.target;
    announce();
    return now;
}

void controller::miss_the_sensor() {
    now.celsius.reset();
    now.heating = heater::off;
    announce();
}

void controller::announce() {
    toolkit::publish(server, state::topic, now);
    next_announcement = loop->create_timer("announce", announcement_interval, {}, [this] { announce(); });
}

}  // namespace thermostat
