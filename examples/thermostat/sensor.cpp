// Measures a room, which it makes up: it gets warmer while the heater is on.
#include <cmath>
#include <iostream>
#include <stdexcept>

#include <tolvan/vesk/toolkit/typed_calls.hpp>

#include "process.hpp"
#include "records.hpp"

using namespace thermostat;
namespace vesk = tolvan::vesk::v1;
namespace toolkit = tolvan::vesk::toolkit;

namespace {

constexpr auto interval = std::chrono::milliseconds(100);
constexpr double largest_offset = 5;

class sensor {
  public:
    explicit sensor(std::shared_ptr<tolvan::event_loop_v1> application_loop) : loop(application_loop) {
        room.subscribe(state::topic, nullptr,
                       [this](const std::string&, const state& heard) { heating = heard.heating; });
        server.set_uuid("sensor");
        toolkit::serve<calibration>(server, "calibrate",
                                    [this](const calibration& asked) { return calibrate(asked); });
        measure();
    }

  private:
    void measure() {
        celsius += heating == heater::on ? 0.3 : -0.1;
        toolkit::publish(server, reading::topic, measured());
        next = loop->create_timer("measure", interval, {}, [this] { measure(); });
    }

    // What is thrown here is what the client's request fails with.
    reading calibrate(const calibration& asked) {
        if (!(std::abs(asked.offset) <= largest_offset))
            throw std::runtime_error("an offset of " + std::to_string(asked.offset) + " is a broken sensor");
        offset = asked.offset;
        return measured();
    }

    reading measured() const { return {.celsius = celsius + offset}; }

    std::shared_ptr<tolvan::event_loop_v1> loop;
    double celsius = 18;
    double offset = 0;
    heater heating = heater::off;
    vesk::subscriber room;
    vesk::reqrep_server server;
    tolvan::event_loop_v1::holder<tolvan::timer_impl_base> next;
};

}  // namespace

int main() try {
    const process self;
    const sensor measuring(self.loop);
    self.loop->run();
} catch (const std::exception& error) {
    std::cerr << "sensor: " << error.what() << '\n';
    return 1;
}
