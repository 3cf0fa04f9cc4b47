// Shows what the controller does, and asks it for a temperature: display [DEGREES]
#include <iomanip>
#include <iostream>
#include <sstream>

#include <tolvan/vesk/toolkit/hub_presence.hpp>
#include <tolvan/vesk/toolkit/typed_calls.hpp>

#include "process.hpp"
#include "records.hpp"

using namespace thermostat;
namespace vesk = tolvan::vesk::v1;
namespace toolkit = tolvan::vesk::toolkit;

namespace {

constexpr auto patience = std::chrono::milliseconds(2000);

class display {
  public:
    display(std::shared_ptr<tolvan::event_loop_v1> application_loop, std::optional<double> degrees)
        : loop(application_loop), wanted(degrees) {
        controller.subscribe(state::topic, nullptr,
                             [this](const std::string&, const state& heard) { take(heard); });
    }

  private:
    // A controller that was started anew has forgotten what it was asked for: it is asked again.
    void take(const state& heard) {
        show(heard);
        if (wanted && heard.target != *wanted && !asking) ask();
    }

    void show(const state& heard) {
        std::ostringstream text;
        text << std::fixed << std::setprecision(1) << "wanted " << heard.target << ", heater "
             << (heard.heating == heater::on ? "on" : "off") << (heard.celsius ? "" : ", no reading");
        say(text.str());
        controller_watch =
            loop->create_timer("controller", patience, {}, [this] { say("the controller is silent"); });
    }

    void ask() {
        asking = true;
        toolkit::request<state>(
            client, "controller", "set", wish{*wanted},
            [this](const state& reached) {
                asking = false;
                show(reached);
            },
            [this](const std::exception& failure) { fail(failure); });
    }

    // Refused is refused; what had no answer is asked again when the controller is heard.
    void fail(const std::exception& failure) {
        asking = false;
        if (dynamic_cast<const toolkit::request_refused*>(&failure) != nullptr) wanted.reset();
        say(std::string("not set: ") + failure.what());
    }

    void show_at_once() {
        toolkit::request<state>(
            client, "controller", "show", question{}, [this](const state& now) { take(now); },
            [this](const std::exception& failure) { say(std::string("not known: ") + failure.what()); });
    }

    void say(const std::string& text) {
        if (text != said) std::cout << text << std::endl;
        said = text;
    }

    std::shared_ptr<tolvan::event_loop_v1> loop;
    std::optional<double> wanted;
    bool asking = false;
    std::string said;
    vesk::subscriber controller;
    vesk::reqrep_client client;
    tolvan::event_loop_v1::holder<tolvan::timer_impl_base> controller_watch;
    toolkit::hub_presence hub{loop, {.ready = [this] { show_at_once(); }}, {.probe_interval{}}};
};

std::optional<double> degrees_of(int argc, char** argv) {
    return argc > 1 ? std::optional(std::stod(argv[1])) : std::nullopt;
}

}  // namespace

int main(int argc, char** argv) try {
    const process self;
    const display shown(self.loop, degrees_of(argc, argv));
    self.loop->run();
} catch (const std::exception& error) {
    std::cerr << "display: " << error.what() << '\n';
    return 1;
}
