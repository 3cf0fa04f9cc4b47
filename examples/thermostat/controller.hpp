#pragma once

#include <memory>

#include <tolvan/event_loop_v1.hpp>
#include <tolvan/vesk/toolkit/hub_presence.hpp>
#include <tolvan/vesk/v1/reqrep_server.hpp>
#include <tolvan/vesk/v1/subscriber.hpp>

#include "records.hpp"

namespace thermostat {

/// Turns the heater on and off so that the room is as warm as somebody has asked for. While the sensor is
/// silent the heater is off.
class controller {
  public:
    /// Without a reading for so long the sensor counts as silent.
    static constexpr std::chrono::milliseconds patience{1000};

    /// Works from now on, on that loop; needs a connection to the bus.
    explicit controller(std::shared_ptr<tolvan::event_loop_v1> application_loop);

    const state& current() const { return now; }

  private:
    void regulate(const reading& measured);
    state set(const wish& asked);
    void miss_the_sensor();
    void announce();

    std::shared_ptr<tolvan::event_loop_v1> loop;
    state now;
    tolvan::vesk::v1::reqrep_server server;
    tolvan::vesk::v1::subscriber sensor;
    tolvan::event_loop_v1::holder<tolvan::timer_impl_base> sensor_watch;
    tolvan::event_loop_v1::holder<tolvan::timer_impl_base> next_announcement;
    tolvan::vesk::toolkit::hub_presence hub;
};

}  // namespace thermostat
