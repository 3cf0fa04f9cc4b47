// Publishes a greeting to itself, sends itself a request, and prints what comes. Needs "vesk hub" with the
// same two endpoints.
#include <iostream>

#include <tolvan/asio_event_loop.hpp>
#include <tolvan/lumo/v1/stderr_sink.hpp>
#include <tolvan/vesk/toolkit/hub_presence.hpp>
#include <tolvan/vesk/toolkit/typed_calls.hpp>
#include <tolvan/vesk/v1/connection.hpp>

namespace sedes = tolvan::sedes::v1;
namespace toolkit = tolvan::vesk::toolkit;
namespace vesk = tolvan::vesk::v1;

struct rectangle {
    int width = 0;
    int height = 0;

    static constexpr auto description() {
        return sedes::composite(sedes::plain("width", &rectangle::width),
                                sedes::plain("height", &rectangle::height));
    }
};

int main(int argc, char** argv) {
    if (argc != 3) {
        std::cerr << "usage: first_program PUB_ENDPOINT SUB_ENDPOINT\n";
        return 2;
    }
    const auto log = tolvan::lumo::v1::log_to_stderr();
    const auto loop = std::make_shared<tolvan::asio_event_loop>();
    const vesk::connection bus({.pub_endpoint = argv[1], .sub_endpoint = argv[2]}, loop);

    vesk::reqrep_server server;
    server.set_uuid("geometry");
    toolkit::serve<rectangle>(server, "area",
                              [](const rectangle& asked) { return asked.width * asked.height; });

    vesk::subscriber subscriber;
    subscriber.subscribe("greeting", nullptr, [](const std::string& topic, const std::string& data) {
        std::cout << topic << ": " << data << '\n';
    });

    vesk::publisher publisher;
    vesk::reqrep_client client;
    const auto begin = [&] {
        publisher.publish("greeting.morning", "hello, bus");
        toolkit::request<int>(
            client, "geometry", "area", rectangle{6, 7},
            [&](int area) {
                std::cout << "geometry.area: " << area << '\n';
                loop->stop();
            },
            [&](const std::exception& failure) {
                std::cerr << "geometry.area: " << failure.what() << '\n';
                loop->stop();
            });
    };
    // What is sent before the hub knows the subscriptions reaches nobody.
    const toolkit::hub_presence hub(loop, {.ready = begin});
    loop->run();
}
