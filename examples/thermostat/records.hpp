// What the three programs say to each other.
#pragma once

#include <optional>

#include <tolvan/sedes/v1/json.hpp>

namespace thermostat {

namespace sedes = tolvan::sedes::v1;

/// The sensor publishes it ten times a second.
struct reading {
    static constexpr auto topic = "thermostat.reading";
    double celsius = 0;

    static constexpr auto description() {
        return sedes::composite(sedes::plain("celsius", &reading::celsius));
    }
};

enum class heater { off, on };

constexpr auto description(heater) {
    return sedes::enumeration(sedes::enumerator("off", heater::off), sedes::enumerator("on", heater::on));
}

/// The controller publishes it with each reading, and every half second without.
struct state {
    static constexpr auto topic = "thermostat.state";
    double target = 20;
    heater heating = heater::off;
    std::optional<double> celsius;  ///< none while the sensor is silent

    static constexpr auto description() {
        return sedes::composite(sedes::plain("target", &state::target),
                                sedes::plain("heating", &state::heating),
                                sedes::optional_member("celsius", &state::celsius));
    }
};

/// Asks the controller for another temperature: command "set". The reply is the new state.
struct wish {
    double target = 0;

    static constexpr auto description() { return sedes::composite(sedes::plain("target", &wish::target)); }
};

/// Asks the sensor to add something to what it measures: command "calibrate". The reply is the new reading.
struct calibration {
    double offset = 0;

    static constexpr auto description() {
        return sedes::composite(sedes::plain("offset", &calibration::offset));
    }
};

/// Asks the controller for its state: command "show".
struct question {
    static constexpr auto description() { return sedes::composite(); }
};

}  // namespace thermostat
